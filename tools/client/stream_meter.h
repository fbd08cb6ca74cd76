#pragma once

// Measures what a client gets: streams by the second, losses, restarts of the daemon.
// Stands on: client/clock, client/packet, client/sequence_count.

#include "client/clock.h"
#include "client/packet.h"
#include "client/sequence_count.h"

#include <cstdint>
#include <optional>

// Reads no clock. One thread at a time may use a record. The client must be registered for
// everything, or losses and rates say nothing (client/sequence_count.h).

struct StreamRates {
    double pictures; // of the video, a second
    double video;    // Mbit/s, as are the others
    double audio;
    double camera; // the board's own
};

struct StreamMeter {
    SequenceCount count;
    TimePoint daemon_since{}; // the first packet of the daemon's sequence that came here
    int daemon_restarts = 0;
    std::optional<StreamRates> rates; // of the last whole interval

    TimePoint begun{}; // of the interval that runs
    StreamRates sums{};
    uint64_t bits_seen = ~uint64_t{0}; // the video's last bytes
};

// Takes a packet that has come.
void meter_packet(StreamMeter &meter, const PacketView &packet, TimePoint now);

// Call it several times a second: it ends an interval after two seconds, also when nothing comes.
void step_meter(StreamMeter &meter, TimePoint now);
