#pragma once

#include "block.h"
#include "wire.h"

#include <cstddef>
#include <cstdint>

// What arrives at the clients and the display process.

// A block that has arrived; valid during the call.
struct Arrival {
    Destination &destination;
    const uint8_t *block;
    size_t size;
    BlockHeader header;
    int64_t arrived_ns;
    bool well_formed; // sender, relay header and sequence number are right
};

// Receives everything that has arrived. Calls `take(arrival, context)` for each relay packet of
// type `type`, or of any, that holds a block of the benchmark; ignores other packets, such as
// status records.
constexpr int any_type = -1;
void drain(Wire &wire, int type, void (*take)(const Arrival &, void *), void *context);
