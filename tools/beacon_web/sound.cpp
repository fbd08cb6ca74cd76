#include "beacon_web/sound.h"

#include "client/answers.h"

#include <nlohmann/json.hpp>

void add_sound(SoundQueue &queue, const std::shared_ptr<const std::string> &piece) {
    if (!queue.is_wanted) {
        return;
    }
    queue.pieces.push_back(piece);
    if (queue.pieces.size() > most_sound) {
        queue.pieces.pop_front();
    }
}

std::shared_ptr<const std::string> next_sound(SoundQueue &queue) {
    if (queue.pieces.empty()) {
        return nullptr;
    }
    auto piece = std::move(queue.pieces.front());
    queue.pieces.pop_front();
    return piece;
}

void want_sound(SoundQueue &queue, bool is_wanted) {
    queue.is_wanted = is_wanted;
    queue.pieces.clear();
}

// Like a box of a film, so that the page tells them apart; films name such samples so.
std::string sound_message(std::span<const uint8_t> samples) {
    const auto size = static_cast<uint32_t>(samples.size() + 8);
    std::string message;
    for (int shift = 24; shift >= 0; shift -= 8) {
        message += static_cast<char>(size >> shift & 0xffU);
    }
    message += "sowt";
    message.append(samples.begin(), samples.end());
    return message;
}

std::optional<bool> parse_sound_wish(std::string_view message) {
    const Json parsed = Json::parse(message, nullptr, false);
    const Json wish = parsed.is_object() ? parsed.value("sound", Json()) : Json();
    return wish.is_boolean() ? std::optional(wish.get<bool>()) : std::nullopt;
}
