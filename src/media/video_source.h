#pragma once

// Takes video frames from the rings and sends them to all who receive video.
// Stands on: config/config, config/restream_clients, media/frame_ring, media/frame_ring_layout,
// net/pace, net/relay, net/udp_endpoint, net/udp_outlet.

#include <cstdint>

// Frames come through the shared frame rings and go to the clients, to the TCP client and, raw, to
// the restream list. The UDP port, 5001, only shows that the source is alive.

// Starts the endpoint, prepares both rings and starts the loss checker and the frame reader.
// Returns 0; -1 when the port cannot be bound, before anything else is started. Start-up only.
int init_video_source(uint16_t port);

// Reopens both frame rings; see prepare_frame_ring. Any thread, several at once.
void reinit_frame_rings();

// Is video arriving? Any thread.
bool video_present();

// Is video lost at `now` when its last frame came at `last_frame_time` (both from now_ms)? Never
// when `last_frame_time` is 0, which means no frame yet.
constexpr bool video_is_lost(uint32_t last_frame_time, uint32_t now) {
    constexpr int32_t silence_ms = 1000;
    return last_frame_time != 0 && static_cast<int32_t>(now - last_frame_time) > silence_ms;
}
