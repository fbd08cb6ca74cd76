#pragma once

// The registry of remote clients: ten slots, each free or held by one host and port.
// Stands on: base/ipv4, base/relaxed.

#include "base/ipv4.h"
#include "base/relaxed.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

// The control server's receive thread registers and removes clients, its housekeeping thread
// sweeps, and the media threads read the slots. There is no lock: a slot's address and mode are one
// number, so a reader sees either a whole client or none.

constexpr int client_capacity = 10;
constexpr uint32_t client_timeout_ms = 10000; // a client older than this is dropped
constexpr size_t clients_json_capacity = 2048;

struct ClientSlot {
    // The client's Ipv4Port, combined with client_data_only if it is set; 0 when the slot is free.
    // Publishes last_seen_ms.
    std::atomic<uint64_t> client;
    Relaxed<uint32_t> last_seen_ms; // now_ms() of the last registration
};

constexpr uint64_t client_data_only = 1ULL << 48; // wants no video, audio or camera

struct ClientRegistry {
    ClientSlot slots[client_capacity];
    // Another number after each change of a slot's address or mode: as long as it stays, the slots
    // need not be read again.
    std::atomic<uint32_t> version{1};
    Relaxed<uint8_t> count; // clients found by the last sweep
};

// Registers the client or refreshes its slot. A new client is announced on standard error; it is
// ignored when all slots are taken. The address 0.0.0.0 (a sender that has none yet) is ignored:
// packets to it would come back to this board, and 0 marks a free slot.
void register_client(ClientRegistry &registry, Ipv4Port address, bool data_only, uint32_t now);

// Frees the client's slot and reports it on standard error; does nothing when it has none.
void remove_client(ClientRegistry &registry, Ipv4Port address);

// Drops clients whose last registration is more than client_timeout_ms ago by `clock()`, counts the
// rest, and writes them as a JSON list to `json` (clients_json_capacity bytes).
void sweep_clients(ClientRegistry &registry, uint32_t (*clock)(), char *json);

// The address to send a packet to for this slot; 0 when the slot is free, or when the packet is
// media and the client takes data only.
inline Ipv4Port slot_destination(const ClientSlot &slot, bool is_media) {
    const uint64_t client = slot.client.load(std::memory_order_relaxed);
    if (is_media && (client & client_data_only) != 0) {
        return 0;
    }
    return client & ~client_data_only;
}
