#include "net/payload_queue.h"

#include <algorithm>
#include <cstring>

// Stands before each payload in the ring.
struct RecordHeader {
    Ipv4Port sender;
    uint32_t size;
    uint32_t unused;
};

constexpr uint32_t record_unit = 8;
static_assert(sizeof(RecordHeader) % record_unit == 0);
static_assert((payload_queue_size & (payload_queue_size - 1)) == 0, "positions wrap at 2^32");

static uint32_t record_size(size_t payload_size) {
    const size_t size = sizeof(RecordHeader) + payload_size;
    return static_cast<uint32_t>((size + record_unit - 1) / record_unit * record_unit);
}

// Copies to and from the ring, around its end.

static void write_ring(PayloadQueue &queue, uint32_t position, const void *data, size_t size) {
    const uint32_t at = position % payload_queue_size;
    const size_t first = std::min<size_t>(size, payload_queue_size - at);
    memcpy(queue.bytes + at, data, first);
    memcpy(queue.bytes, static_cast<const uint8_t *>(data) + first, size - first);
}

static void read_ring(const PayloadQueue &queue, uint32_t position, void *data, size_t size) {
    const uint32_t at = position % payload_queue_size;
    const size_t first = std::min<size_t>(size, payload_queue_size - at);
    memcpy(data, queue.bytes + at, first);
    memcpy(static_cast<uint8_t *>(data) + first, queue.bytes, size - first);
}

static RecordHeader header_at(const PayloadQueue &queue, uint32_t position) {
    RecordHeader header{};
    read_ring(queue, position, &header, sizeof header);
    return header;
}

bool push_payload(PayloadQueue &queue, Ipv4Port sender, const uint8_t *payload, size_t size) {
    const uint32_t written = queue.written.load(std::memory_order_relaxed);
    const uint32_t used = written - queue.taken.load(std::memory_order_acquire);
    if (size > queued_payload_limit || record_size(size) > payload_queue_size - used) {
        queue.dropped.add(1);
        return false;
    }
    const RecordHeader header{sender, static_cast<uint32_t>(size), 0};
    write_ring(queue, written, &header, sizeof header);
    write_ring(queue, written + sizeof header, payload, size);
    queue.written.store(written + record_size(size), std::memory_order_release);
    queue.written.notify_one();
    return true;
}

bool has_payload_of(const PayloadQueue &queue, Ipv4Port sender) {
    const uint32_t written = queue.written.load(std::memory_order_relaxed);
    uint32_t position = queue.taken.load(std::memory_order_acquire);
    while (position != written) {
        const RecordHeader header = header_at(queue, position);
        if (header.sender == sender) {
            return true;
        }
        position += record_size(header.size);
    }
    return false;
}

void wait_for_payload(const PayloadQueue &queue) {
    queue.written.wait(queue.taken.load(std::memory_order_relaxed), std::memory_order_acquire);
}

bool first_payload(const PayloadQueue &queue, QueuedPayload &payload) {
    const uint32_t taken = queue.taken.load(std::memory_order_relaxed);
    if (queue.written.load(std::memory_order_acquire) == taken) {
        return false;
    }
    const RecordHeader header = header_at(queue, taken);
    payload.sender = header.sender;
    payload.size = header.size;
    read_ring(queue, taken + sizeof header, payload.bytes, payload.size);
    memset(payload.bytes + payload.size, 0, queued_payload_zeros);
    return true;
}

void pop_payload(PayloadQueue &queue) {
    const uint32_t taken = queue.taken.load(std::memory_order_relaxed);
    const size_t size = header_at(queue, taken).size;
    queue.taken.store(taken + record_size(size), std::memory_order_release);
}
