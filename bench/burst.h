#pragma once

#include "subject.h"
#include "wire.h"

#include <cstdint>

// Large frames for slow receivers: clients with the system's default receive buffers that look at a
// datagram only so often, as a phone does that has work with each. Sound runs beside the video.

struct Burst {
    uint32_t size; // bytes of a frame
    int clients;
    int work_us; // between two looks of a client
};

struct BurstResult {
    // A buffer of default size bridges a millisecond and a half. When other programs kept the
    // clients, which are one thread, from looking for longer, they lose something of the frame that
    // is on its way, and no relay can help it.
    unsigned disturbed;
    unsigned frames; // all others
    unsigned whole;  // of these, at the client with the fewest
    double p50_ms;   // from sending to the last byte at the last client, of frames whole at all
    double p99_ms;
    double cpu_us;       // processor time for each datagram that a client looked at
    double sound_p99_ms; // from sending to arrival in a client's buffer; NAN without sound
};

constexpr double burst_rate_hz = 30;

// Runs it over a wire with default buffers that is connected.
BurstResult run_burst(Wire &wire, const Subject &subject, const Burst &burst, unsigned frames);
