#pragma once

// A block whose peer is the test itself: it writes and reads the bytes on the wire.

#include "ikcp.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace ikcp_wire {

struct Wire {
    uint32_t conv = 7;
    uint32_t cmd = 81;
    uint32_t frg = 0;
    uint32_t wnd = 128;
    uint32_t ts = 0;
    uint32_t sn = 0;
    uint32_t una = 0;
    std::string data = {};
    uint32_t claimed = 0xFFFFFFFFU; // len, if it is not data.size()
};

inline void put(std::string &bytes, uint32_t value, int count) {
    for (int i = 0; i < count; ++i) {
        bytes.push_back(static_cast<char>(value % 256));
        value /= 256;
    }
}

inline std::string encode(const Wire &wire) {
    std::string bytes;
    put(bytes, wire.conv, 4);
    put(bytes, wire.cmd, 1);
    put(bytes, wire.frg, 1);
    put(bytes, wire.wnd, 2);
    put(bytes, wire.ts, 4);
    put(bytes, wire.sn, 4);
    put(bytes, wire.una, 4);
    put(bytes, wire.claimed != 0xFFFFFFFFU ? wire.claimed : static_cast<uint32_t>(wire.data.size()),
        4);
    return bytes + wire.data;
}

inline uint32_t get(const std::string &bytes, size_t at, int count) {
    uint32_t value = 0;
    for (int i = count - 1; i >= 0; --i) {
        value = value * 256 + static_cast<uint8_t>(bytes.at(at + static_cast<size_t>(i)));
    }
    return value;
}

inline std::vector<Wire> decode(const std::string &bytes) {
    std::vector<Wire> result;
    for (size_t at = 0; at < bytes.size();) {
        Wire wire;
        wire.conv = get(bytes, at, 4);
        wire.cmd = get(bytes, at + 4, 1);
        wire.frg = get(bytes, at + 5, 1);
        wire.wnd = get(bytes, at + 6, 2);
        wire.ts = get(bytes, at + 8, 4);
        wire.sn = get(bytes, at + 12, 4);
        wire.una = get(bytes, at + 16, 4);
        wire.data = bytes.substr(at + 24, get(bytes, at + 20, 4));
        EXPECT_EQ(get(bytes, at + 20, 4), wire.data.size());
        at += 24 + wire.data.size();
        result.push_back(wire);
    }
    return result;
}

// A block with congestion control off, whose datagrams are kept.
struct Block {
    Block() : kcp(ikcp_create(7, this)) {
        kcp->output = [](const char *buf, int len, ikcpcb *, void *user) {
            static_cast<Block *>(user)->sent.emplace_back(buf, static_cast<size_t>(len));
            return 0;
        };
        kcp->nocwnd = 1;
        kcp->updated = 1;
    }
    ~Block() {
        ikcp_release(kcp);
    }
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;

    void send(size_t size, char letter = 'x') const {
        EXPECT_EQ(0, ikcp_send(kcp, std::string(size, letter).data(), static_cast<int>(size)));
    }
    void send_many(int count) const {
        for (int i = 0; i < count; ++i) {
            send(1);
        }
    }
    // Flushes at the given time and returns the segments that were sent.
    std::vector<Wire> flush_at(uint32_t time) {
        kcp->current = time;
        ikcp_flush(kcp);
        std::vector<Wire> result;
        for (const std::string &datagram : sent) {
            for (const Wire &wire : decode(datagram)) {
                result.push_back(wire);
            }
        }
        sent.clear();
        return result;
    }
    int input(const std::string &bytes) const {
        // A copy of exactly that size, so that reading past its end is noticed.
        const std::vector<char> exact(bytes.begin(), bytes.end());
        return ikcp_input(kcp, exact.data(), static_cast<long>(exact.size()));
    }
    int input(const Wire &wire) const {
        return input(encode(wire));
    }
    // Acks for these segments in one datagram. `una` does not advance, as after a loss.
    void ack(const std::vector<uint32_t> &numbers, uint32_t una = 0, uint32_t wnd = 128) const {
        std::string bytes;
        for (const uint32_t sn : numbers) {
            bytes += encode({.cmd = 82, .wnd = wnd, .ts = kcp->current, .sn = sn, .una = una});
        }
        EXPECT_EQ(0, input(bytes));
    }
    void start_sending_at(uint32_t sn) const {
        kcp->snd_una = sn;
        kcp->snd_nxt = sn;
    }

    ikcpcb *kcp;
    std::vector<std::string> sent;
};

using Numbers = std::vector<uint32_t>;

inline Numbers numbers_of(const IkcpList &list) {
    Numbers result;
    for (const IkcpSegment *segment = list.first; segment != nullptr; segment = segment->next) {
        result.push_back(segment->sn);
    }
    return result;
}

// The sequence numbers of the pushes.
inline Numbers pushed(const std::vector<Wire> &wires) {
    Numbers result;
    for (const Wire &wire : wires) {
        if (wire.cmd == 81) {
            result.push_back(wire.sn);
        }
    }
    return result;
}

inline Numbers acked(const ikcpcb *kcp) {
    Numbers result;
    for (uint32_t i = 0; i < kcp->ackcount; ++i) {
        result.push_back(kcp->acklist[i].sn);
    }
    return result;
}

inline std::string received(const Block &block) {
    char room[4000];
    const int size = ikcp_recv(block.kcp, room, sizeof room);
    return size < 0 ? std::to_string(size) : std::string(room, static_cast<size_t>(size));
}

// The times within `end` ms at which a block that flushes every ms sends a single segment.
inline Numbers transmissions(Block &block, uint32_t start, uint32_t end) {
    Numbers result;
    for (uint32_t time = 0; time <= end; ++time) {
        if (!pushed(block.flush_at(start + time)).empty()) {
            result.push_back(time);
        }
    }
    return result;
}

} // namespace ikcp_wire
