#include "client/packet.h"

#include "base/bytes.h"
#include "net/relay_packet.h"

#include <cmath>

static_assert(largest_client_payload + relay_header_size == 30000);

constexpr size_t status_size = 41;
constexpr size_t menu_size = 2;
constexpr uint8_t status_kind = 4;
constexpr uint8_t menu_kind = 8;
constexpr uint8_t info_kind = 1;
constexpr size_t info_size = 44;
constexpr size_t info_name_at = 4;

// The first byte of a client's payload says what it wants.
constexpr char wants_info = 0;
constexpr char wants_gimbal = 5; // byte 1: 0, then three i16

std::optional<PacketView> parse_packet(std::span<const uint8_t> datagram) {
    if (datagram.size() < relay_header_size || datagram[relay_magic_at] != relay_magic ||
        get_u32(&datagram[relay_constant_at]) != relay_constant ||
        get_u16(&datagram[relay_length_at]) != datagram.size() - relay_header_size) {
        return std::nullopt;
    }
    return PacketView{datagram[relay_type_at], get_u32(&datagram[relay_sequence_at]),
                      datagram.subspan(relay_header_size)};
}

std::string client_datagram(std::string_view payload) {
    std::string datagram(relay_header_size, '\0');
    datagram[relay_magic_at] = static_cast<char>(relay_magic);
    return datagram.append(payload);
}

std::string_view payload_text(const PacketView &packet) {
    return {reinterpret_cast<const char *>(packet.payload.data()), packet.payload.size()};
}

// The payload is not empty.
static PacketKind data_kind(std::span<const uint8_t> payload) {
    if (payload[0] == info_kind && payload.size() == info_size) {
        return PacketKind::info;
    }
    if (payload[0] == status_kind && payload.size() == status_size) {
        return PacketKind::status;
    }
    if (payload[0] == menu_kind && payload.size() == menu_size) {
        return PacketKind::menu_notice;
    }
    return PacketKind::data;
}

PacketKind packet_kind(const PacketView &packet) {
    switch (packet.type) {
    case relay_type_data:
        return packet.payload.empty() ? PacketKind::data : data_kind(packet.payload);
    case relay_type_video:
        return PacketKind::video;
    case relay_type_audio:
        return PacketKind::audio;
    case relay_type_internal_camera:
        return PacketKind::camera;
    case relay_type_file:
        return PacketKind::file_piece;
    default:
        return PacketKind::unknown;
    }
}

std::optional<BoardInfo> parse_info(const PacketView &packet) {
    if (packet_kind(packet) != PacketKind::info) {
        return std::nullopt;
    }
    std::string name(payload_text(packet).substr(info_name_at));
    name.erase(name.find_last_not_of(' ') + 1); // padded to 40 characters
    return BoardInfo{packet.payload[1], packet.payload[3], name, packet.sequence};
}

std::string info_payload() {
    return {wants_info};
}

std::string shot_payload() {
    return R"(!{"cmd":"shot","param":""})";
}

std::string gimbal_payload(double pan, double tilt, double roll) {
    std::string payload(8, '\0');
    payload[0] = wants_gimbal;
    size_t at = 2;
    for (const double value : {pan, tilt, roll}) {
        const auto number = static_cast<uint16_t>(std::lround(value * 32767));
        payload[at] = static_cast<char>(number & 0xFF);
        payload[at + 1] = static_cast<char>(number >> 8);
        at += 2;
    }
    return payload;
}
