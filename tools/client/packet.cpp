#include "client/packet.h"

#include "base/text.h"
#include "net/relay_packet.h"

#include <cmath>

static_assert(largest_client_payload + relay_header_size == 30000);

constexpr size_t status_size = 41;
constexpr uint8_t status_kind = 4;
constexpr uint8_t menu_kind = 8;
constexpr uint8_t info_kind = 1;
constexpr size_t info_size = 44;
constexpr size_t info_name_at = 4;
constexpr uint32_t overtaken_limit = 64;      // a packet further behind is of another count
constexpr uint32_t remembered_missing = 1024; // more than overtaken_limit, and bounded

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

bool is_status_payload(std::span<const uint8_t> payload) {
    return payload.size() == status_size && payload[0] == status_kind;
}

static bool is_data_of(const PacketView &packet, uint8_t kind, size_t size) {
    return packet.type == relay_type_data && packet.payload.size() == size &&
           packet.payload[0] == kind;
}

bool is_status(const PacketView &packet) {
    return packet.type == relay_type_data && is_status_payload(packet.payload);
}

bool is_menu_notice(const PacketView &packet) {
    return is_data_of(packet, menu_kind, 2);
}

std::string_view payload_text(const PacketView &packet) {
    return {reinterpret_cast<const char *>(packet.payload.data()), packet.payload.size()};
}

std::optional<BoardInfo> parse_info(const PacketView &packet) {
    if (!is_data_of(packet, info_kind, info_size)) {
        return std::nullopt;
    }
    std::string name(payload_text(packet).substr(info_name_at));
    name.erase(name.find_last_not_of(' ') + 1); // padded to 40 characters
    return BoardInfo{packet.payload[1], packet.payload[3], name};
}

std::string gimbal_payload(double pan, double tilt, double roll) {
    std::string payload(8, '\0');
    payload[0] = ask_gimbal;
    size_t at = 2;
    for (const double value : {pan, tilt, roll}) {
        const auto number = static_cast<uint16_t>(std::lround(value * 32767));
        payload[at] = static_cast<char>(number & 0xFF);
        payload[at + 1] = static_cast<char>(number >> 8);
        at += 2;
    }
    return payload;
}

static void pass_over(SequenceCount &count, uint32_t gap) {
    count.lost += gap;
    const uint32_t first = gap > remembered_missing ? gap - remembered_missing : 0;
    for (uint32_t i = first; i < gap; ++i) {
        count.missing.insert(count.expected + i);
    }
    while (count.missing.size() > remembered_missing) {
        count.missing.erase(count.missing.begin());
    }
}

Arrival count_packet(SequenceCount &count, uint32_t sequence) {
    const uint32_t behind = count.expected - sequence; // modulo 2^32, as the numbers are
    if (count.started && behind > 0 && behind <= overtaken_limit) {
        if (count.missing.erase(sequence) == 0) {
            return Arrival::repeated;
        }
        --count.lost;
        return Arrival::late;
    }
    const bool is_new_count = !count.started || behind < (1U << 31U);
    if (is_new_count && behind != 0) {
        count.missing.clear();
    } else {
        pass_over(count, sequence - count.expected);
    }
    count.started = true;
    count.expected = sequence + 1;
    return Arrival::in_order;
}
