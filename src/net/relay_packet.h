#pragma once

// The layout of the relay packet, the one datagram format between the daemon and its clients.
// Stands on: base/bytes.

#include "base/bytes.h"

#include <cstddef>
#include <cstdint>

// Both directions use it. Numbers are little-endian. A datagram is the header followed by as many
// payload bytes as it says. In clients' datagrams only the magic is checked; the rest of the header
// is not read. docs/protocol.md describes the payloads.

// Offsets in the header.
constexpr size_t relay_magic_at = 0;    // u8, relay_magic
constexpr size_t relay_type_at = 1;     // u8, RelayType
constexpr size_t relay_length_at = 2;   // u16, payload bytes
constexpr size_t relay_sequence_at = 4; // u32, incremented with every packet sent, wraps
constexpr size_t relay_constant_at = 8; // u32, always 1
constexpr size_t relay_header_size = 12;

constexpr uint8_t relay_magic = 'R';
constexpr uint32_t relay_constant = 1;
constexpr size_t relay_payload_capacity = 60000;
constexpr uint16_t relay_video_block_size = 1300;

enum RelayType : uint8_t {
    relay_type_data = 0,  // telemetry, replies, status
    relay_type_video = 1, // H.264, cut into blocks of relay_video_block_size
    relay_type_audio = 2,
    relay_type_internal_camera = 3,
    relay_type_file = 4,
};

// A packet being built: only the used part is ever written, copied or sent.
struct RelayPacket {
    uint8_t header[relay_header_size];
    uint8_t payload[relay_payload_capacity];
};
static_assert(sizeof(RelayPacket) == 60012);
static_assert(offsetof(RelayPacket, payload) == relay_header_size);
static_assert(relay_constant_at + sizeof(uint32_t) == relay_header_size);

inline void set_payload_length(RelayPacket &packet, uint16_t length) {
    put_u16(packet.header + relay_length_at, length);
}

inline uint16_t payload_length(const RelayPacket &packet) {
    return get_u16(packet.header + relay_length_at);
}

// Writes the rest of a header of relay_header_size bytes, beside the length.
inline void stamp_header(uint8_t *header, uint8_t type, uint32_t sequence) {
    header[relay_magic_at] = relay_magic;
    header[relay_type_at] = type;
    put_u32(header + relay_sequence_at, sequence);
    put_u32(header + relay_constant_at, relay_constant);
}

inline void stamp_header(RelayPacket &packet, uint8_t type, uint32_t sequence) {
    stamp_header(packet.header, type, sequence);
}
