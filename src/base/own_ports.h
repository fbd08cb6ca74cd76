#pragma once

// The UDP ports that the daemon opens.
// Stands on: nothing else of ours.

#include <cstdint>

constexpr uint16_t control_port = 5252;
constexpr uint16_t data_port = 5000;
constexpr uint16_t video_port = 5001;
constexpr uint16_t audio_port = 5003;

// Does the daemon listen on this UDP port? A slow board opens neither the video nor the audio port.
constexpr bool is_own_port(uint16_t port) {
    return port == control_port || port == data_port || port == video_port || port == audio_port;
}
