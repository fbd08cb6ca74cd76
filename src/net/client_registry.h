#pragma once

#include "base/ipv4.h"
#include "base/relaxed.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

// The registry of remote clients: ten slots, each free or held by one host and port.
//
// The control server's receive thread registers and removes, its housekeeping thread sweeps, the
// media threads read the slots. Nothing is locked: a slot's address and mode are one number, so a
// reader sees a whole client or none.

constexpr int client_capacity = 10;
constexpr uint32_t client_timeout_ms = 10000; // a client older than this is dropped
constexpr size_t clients_json_capacity = 2048;

struct ClientSlot {
    // The Ipv4Port, and client_data_only on top of it; 0 when the slot is free. Publishes
    // last_seen_ms.
    std::atomic<uint64_t> client;
    Relaxed<uint32_t> last_seen_ms; // now_ms of the last registration
};

constexpr uint64_t client_data_only = 1ULL << 48; // wants no video, audio or camera

struct ClientRegistry {
    ClientSlot slots[client_capacity];
    Relaxed<uint8_t> count; // clients found by the last sweep
};

// Registers the client or refreshes its slot; a new one is announced on standard error, and
// ignored when all slots are taken. A sender that has no address yet (0.0.0.0) is no client:
// packets for it would come back to this board, and 0 is a free slot.
void register_client(ClientRegistry &registry, Ipv4Port address, bool data_only, uint32_t now);

// Frees the client's slot and says so; nothing when it holds none.
void remove_client(ClientRegistry &registry, Ipv4Port address);

// Drops clients whose last registration is more than client_timeout_ms before `clock()`, counts
// the rest, and writes them as a JSON list into `json` (clients_json_capacity bytes).
void sweep_clients(ClientRegistry &registry, uint32_t (*clock)(), char *json);

// Where the packets of a relay type go for this slot: its address, or 0 when the slot is free or
// does not take the type.
inline Ipv4Port slot_destination(const ClientSlot &slot, bool is_media) {
    const uint64_t client = slot.client.load(std::memory_order_relaxed);
    if (is_media && (client & client_data_only) != 0) {
        return 0;
    }
    return client & ~client_data_only;
}
