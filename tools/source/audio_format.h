#pragma once

// The format in which the programs here send sound.
// Stands on: nothing else of ours.

#include <cstddef>

// 16-bit little-endian mono samples, 20 ms in each datagram.
constexpr unsigned audio_rate = 16000;
constexpr unsigned audio_interval_ms = 20;
constexpr size_t audio_samples = size_t{audio_rate} * audio_interval_ms / 1000;
constexpr size_t audio_datagram_size = audio_samples * 2;
