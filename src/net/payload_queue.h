#pragma once

// A bounded queue of clients' payloads, from the thread that receives to the one that carries out.
// Stands on: base/ipv4, base/relaxed.

#include "base/ipv4.h"
#include "base/relaxed.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

// One thread puts in and one takes out, without a lock: each writes only its own end of the ring.

constexpr uint32_t payload_queue_size = 1U << 20; // bytes; a power of two
constexpr size_t queued_payload_limit = 30000;    // of one payload
constexpr size_t queued_payload_zeros = 128;      // that follow a payload taken out

struct PayloadQueue {
    // How many bytes have ever been put in and taken out, modulo 2^32. Each publishes the bytes
    // before it: `written` what can be read, `taken` what can be overwritten.
    std::atomic<uint32_t> written;
    std::atomic<uint32_t> taken;
    Relaxed<uint32_t> dropped; // payloads that found no room, modulo 2^32
    uint8_t bytes[payload_queue_size];
};

struct QueuedPayload {
    Ipv4Port sender;
    size_t size;
    uint8_t bytes[queued_payload_limit + queued_payload_zeros]; // zeros from `size` on
};

// The thread that puts in. A payload takes up its size and 16 bytes, rounded up to a multiple of 8.

// Puts in a copy. False when it finds no room, or is larger than queued_payload_limit: then it is
// counted as dropped.
bool push_payload(PayloadQueue &queue, Ipv4Port sender, const uint8_t *payload, size_t size);

// Is a payload of this sender in the queue? The one that is being carried out counts.
bool has_payload_of(const PayloadQueue &queue, Ipv4Port sender);

// The thread that takes out.

// Sleeps until the queue is not empty.
void wait_for_payload(const PayloadQueue &queue);

// Copies the oldest payload, which stays in the queue. False when the queue is empty.
bool first_payload(const PayloadQueue &queue, QueuedPayload &payload);

// Removes the oldest payload. The queue must not be empty.
void pop_payload(PayloadQueue &queue);
