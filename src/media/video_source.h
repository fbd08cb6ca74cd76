#pragma once

#include <cstdint>

// The video source: frames come through the shared frame rings and go to the clients, to the TCP
// client and, raw, to the restream list; its UDP port, 5001, only tells that the source is there.

// Starts the endpoint, prepares both rings and starts the loss checker and the frame reader.
// Returns 0, or -1 when the port cannot be bound: then nothing else is done. Start-up only.
int init_video_source(uint16_t port);

// Opens both frame rings anew. Any thread, several at once too: prepare_frame_ring.
void reinit_frame_rings();

// Is video arriving? Any thread.
bool video_present();

// Was video whose last frame came at `last_frame_time` lost by `now` (both now_ms values)? Never
// when `last_frame_time` is 0: no frame yet.
constexpr bool video_is_lost(uint32_t last_frame_time, uint32_t now) {
    constexpr int32_t silence_ms = 1000;
    return last_frame_time != 0 && static_cast<int32_t>(now - last_frame_time) > silence_ms;
}
