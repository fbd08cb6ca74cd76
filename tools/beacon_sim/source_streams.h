#pragma once

// Exchanges telemetry, sound and commands with the daemon, as a camera's program does.
// Stands on: beacon_sim/gimbal, source/audio_format, source/clocks, source/udp_link.

#include "beacon_sim/gimbal.h"
#include "source/audio_format.h"
#include "source/clocks.h"
#include "source/udp_link.h"

#include <cstdint>
#include <vector>

// Over UDP on the loopback: telemetry, ten lines of text a second, which also tell the daemon where
// to send commands; a line in answer to each command; sound; and once a second a datagram that says
// that there is video.
struct SourceStreams {
    bool has_telemetry = false;
    bool has_audio = false;
    bool has_video = false;
    bool is_tone = true; // the sound is a tone made here, not the encoder's
    UdpLink data;
    UdpLink video;
    UdpLink audio;
    Beat telemetry_beat{100 * nanoseconds_per_millisecond};
    Beat presence_beat{nanoseconds_per_second};
    Beat tone_beat{audio_interval_ms * nanoseconds_per_millisecond};
    std::vector<uint8_t> samples; // from the encoder, less than a datagram
    uint64_t commands = 0;        // received from the daemon
};

// Opens the sockets of the streams that are switched on. False after a message.
bool open_streams(SourceStreams &streams);

// Does the daemon listen? Tries with a datagram of the first stream that is on; true if none is.
bool daemon_listens(SourceStreams &streams);

// Did nothing listen when something was last sent?
bool daemon_is_gone(const SourceStreams &streams);

// Sends what is due at `now`; `frames` is how many were published, for the telemetry.
void run_streams(SourceStreams &streams, int64_t now, uint64_t frames);

// Takes the commands that have come, prints each with the time since `begin`, lets the gimbal carry
// it out, and answers it. The keep-alive is not answered.
void take_commands(SourceStreams &streams, Gimbal &gimbal, int64_t begin);

// Reads the encoder's sound and sends it. False at its end.
bool read_sound(SourceStreams &streams, int fd);
