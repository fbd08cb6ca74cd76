#pragma once

// The board's sound for those browsers that asked for it.
// Stands on: client/answers.

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

// What one browser has yet to get. Many of them share a piece.
struct SoundQueue {
    bool is_wanted = false; // browsers get none until they ask
    std::deque<std::shared_ptr<const std::string>> pieces;
};

constexpr size_t most_sound = 25; // pieces of 20 ms: what is older is of no use

// Without effect where no sound is wanted. When it is full, the oldest piece is dropped.
void add_sound(SoundQueue &queue, const std::shared_ptr<const std::string> &piece);

// The browser's next piece; null: there is none.
std::shared_ptr<const std::string> next_sound(SoundQueue &queue);

// The browser wants sound from now on, or none any more.
void want_sound(SoundQueue &queue, bool is_wanted);

// The message that brings samples to the page: 4 bytes of its size, the highest first, then "sowt",
// then the samples as the board sends them.
std::string sound_message(std::span<const uint8_t> samples);

// The wish in a message of the page, {"sound":true}; nothing if it is none.
std::optional<bool> parse_sound_wish(std::string_view message);
