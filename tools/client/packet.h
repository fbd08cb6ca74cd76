#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>

// What comes from the daemon and goes to it: relay packets (net/relay_packet.h has the layout), and
// the kinds of payload that a client has to tell apart.

// A datagram of the daemon; the payload belongs to the buffer it was read from.
struct PacketView {
    uint8_t type;
    uint32_t sequence;
    std::span<const uint8_t> payload;
};

// Nothing when the datagram is no relay packet, or says another length than it has.
std::optional<PacketView> parse_packet(std::span<const uint8_t> datagram);

// The datagram that carries a client's payload.
std::string client_datagram(std::string_view payload);

// The longest payload that the daemon reads whole. It takes a longer one in part, which ends it
// when a command is cut by that.
constexpr size_t largest_client_payload = 30000 - 12;

// The first byte of a client's payload.
constexpr char ask_info = 0;
constexpr char ask_register = 2; // byte 1: 1 for data only
constexpr char ask_remove = 3;
constexpr char ask_gimbal = 5; // byte 1: 0, then three i16

// The status record, which comes ten times a second; status_record.h reads it.
bool is_status_payload(std::span<const uint8_t> payload);
bool is_status(const PacketView &packet);
bool is_menu_notice(const PacketView &packet); // a stick moved the radio-control menu

std::string_view payload_text(const PacketView &packet);

// The answer to ask_info.
struct BoardInfo {
    uint8_t app_type;
    int client_count;
    std::string name;
};
std::optional<BoardInfo> parse_info(const PacketView &packet);

// The gimbal request; each value is -1 to 1.
std::string gimbal_payload(double pan, double tilt, double roll);

// Counts what is missing in the daemon's one sequence of packets. A packet that was overtaken is
// not missing once it has come. A number far behind means that the daemon has started again: the
// count goes on from there.
struct SequenceCount {
    bool started = false;
    uint32_t expected = 0;
    uint64_t lost = 0;
    std::set<uint32_t> missing; // the latest of those passed over
};

enum class Arrival {
    in_order,
    late,     // it was missing until now
    repeated, // it has come before
};
Arrival count_packet(SequenceCount &count, uint32_t sequence);
