#pragma once

// A block whose datagrams are kept and whose memory is counted, for tests of a single block.

#include "ikcp.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

namespace ikcp_block {

// A block whose datagrams are kept.
struct Block {
    explicit Block(uint32_t conv = 7) : kcp(ikcp_create(conv, this)) {
        kcp->output = [](const char *buf, int len, ikcpcb *, void *user) {
            static_cast<Block *>(user)->sent.emplace_back(buf, static_cast<size_t>(len));
            return len;
        };
    }
    ~Block() {
        ikcp_release(kcp);
    }
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;

    int send(const std::string &text) const {
        return ikcp_send(kcp, text.data(), static_cast<int>(text.size()));
    }
    void flush_at(uint32_t time) const {
        kcp->updated = 1;
        kcp->current = time;
        ikcp_flush(kcp);
    }
    // Moves every datagram to the peer.
    void pass_to(const Block &peer) {
        for (const std::string &datagram : sent) {
            EXPECT_EQ(0, ikcp_input(peer.kcp, datagram.data(), static_cast<long>(datagram.size())));
        }
        sent.clear();
    }

    ikcpcb *kcp;
    std::vector<std::string> sent;
};

// What ikcp_recv returns for a buffer of `room` bytes: the result, followed by the bytes.
inline std::string received(const Block &block, int room = 65000) {
    std::vector<char> buffer(static_cast<size_t>(std::abs(room)) + 1);
    const int size = ikcp_recv(block.kcp, buffer.data(), room);
    if (size < 0) {
        return std::to_string(size);
    }
    return std::to_string(size) + ":" + std::string(buffer.data(), static_cast<size_t>(size));
}

inline std::string with_size(const std::string &text) {
    return std::to_string(text.size()) + ":" + text;
}

inline std::string text_of(size_t size, unsigned int seed) {
    std::string text(size, '\0');
    for (char &byte : text) {
        seed = seed * 1103515245U + 12345U;
        byte = static_cast<char>(seed >> 16);
    }
    return text;
}

inline std::vector<uint32_t> lengths(const IkcpList &list) {
    std::vector<uint32_t> result;
    const IkcpSegment *previous = nullptr;
    for (const IkcpSegment *segment = list.first; segment != nullptr; segment = segment->next) {
        EXPECT_EQ(previous, segment->previous);
        previous = segment;
        result.push_back(segment->len);
    }
    EXPECT_EQ(previous, list.last);
    return result;
}

using Numbers = std::vector<uint32_t>;

// Counts allocations and releases, and makes the chosen allocations fail.
struct Memory {
    std::set<void *> live;
    size_t calls = 0;
    size_t taken = 0;        // bytes of the last call
    size_t refuse_from = 0;  // the first call that fails, from 1; 0: none
    size_t refuse_count = 1; // how many fail from there
};
inline Memory memory;

inline void *take(size_t size) {
    ++memory.calls;
    memory.taken = size;
    if (memory.refuse_from != 0 && memory.calls >= memory.refuse_from &&
        memory.calls - memory.refuse_from < memory.refuse_count) {
        return nullptr;
    }
    void *place = std::malloc(size);
    std::memset(place, 0xA5, size);
    memory.live.insert(place);
    return place;
}

inline void give(void *place) {
    EXPECT_EQ(1U, memory.live.erase(place));
    std::free(place);
}

// Installs the counting hooks for its lifetime.
struct CountedMemory {
    CountedMemory() {
        memory = Memory{};
        ikcp_allocator(take, give);
    }
    ~CountedMemory() {
        ikcp_allocator(nullptr, nullptr);
        EXPECT_TRUE(memory.live.empty());
    }
    CountedMemory(const CountedMemory &) = delete;
    CountedMemory &operator=(const CountedMemory &) = delete;
};

} // namespace ikcp_block
