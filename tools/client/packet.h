#pragma once

// Reads datagrams from the daemon, and makes those for it.
// Stands on: net/relay_packet.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

// The functions here may be called by any thread. docs/protocol.md describes the packets.

// A datagram of the daemon. The payload belongs to the buffer that the datagram was read into.
struct PacketView {
    uint8_t type; // a RelayType
    uint32_t sequence;
    std::span<const uint8_t> payload;
};

// Nothing when the datagram is not a relay packet, or has another length than it says.
std::optional<PacketView> parse_packet(std::span<const uint8_t> datagram);

enum class PacketKind {
    info,        // who is there: parse_info()
    status,      // the status record, ten times a second: client/status_record.h
    menu_notice, // a stick moved the radio-control menu; byte 1 of the payload is the event
    data,        // telemetry, or a daemon's answer: client/answers.h has answer_text()
    video,       // a block of the H.264 stream: client/stream_start.h
    audio,
    camera,     // a block of the board's own camera's H.264 stream
    file_piece, // client/file_fetch.h
    unknown,    // of a later protocol
};

// Telemetry is whatever the camera's program sends. If it looks like one of the other kinds of
// data, it is taken for that.
PacketKind packet_kind(const PacketView &packet);

std::string_view payload_text(const PacketView &packet);

// Who is there.
struct BoardInfo {
    uint8_t app_type;  // what the board carries
    int client_count;  // that are registered; counted once a second
    std::string name;  // as the board has it, in any encoding
    uint32_t sequence; // of the packet: a daemon that was started again counts from 0
};
std::optional<BoardInfo> parse_info(const PacketView &packet); // nothing for another kind

constexpr int most_clients = 10; // that can be registered with a daemon

// The datagram that carries a payload to the daemon.
std::string client_datagram(std::string_view payload);

// The longest payload that the daemon reads whole. It cuts a longer one, and a command that was cut
// ends the daemon.
constexpr size_t largest_client_payload = 30000 - 12;

// The payload that asks who is there; client/request.h asks with it.
std::string info_payload();

// The payload that asks the camera's program to take a photo. It does not answer.
std::string shot_payload();

// The payload that moves the gimbal; each value is -1 to 1, and holds until the next ones come.
std::string gimbal_payload(double pan, double tilt, double roll);
