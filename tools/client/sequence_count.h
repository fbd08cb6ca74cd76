#pragma once

// Counts the packets that were lost on the way.
// Stands on: nothing else of ours.

#include <cstdint>
#include <set>

// The daemon numbers its packets in one sequence, whatever their type and receiver. So
// only a client that is registered for everything can count losses, and a packet that went to
// another client alone (an answer, a piece of a file) counts as lost, too.

struct SequenceCount {
    bool started = false;
    uint32_t expected = 0;      // the next number
    uint64_t lost = 0;          // goes down again when a packet comes late
    std::set<uint32_t> missing; // the latest of the lost numbers; bounded
};

enum class Arrival {
    in_order,
    late,     // it had been counted as lost
    repeated, // it has come before
};

// Counts a packet. A number far behind means that the daemon was started again: counting continues
// from there, and nothing is lost.
Arrival count_packet(SequenceCount &count, uint32_t sequence);

// Is one of the numbers between these two, which have come lately, missing?
bool is_missing_between(const SequenceCount &count, uint32_t after, uint32_t before);

// What one stream has seen of the losses.
struct StreamGap {
    uint64_t lost = 0;
};

// Call it for each packet of a stream, after count_packet(). True: packets were lost since the
// stream's last packet. They may have been the stream's or not.
bool passes_gap(StreamGap &gap, const SequenceCount &count);
