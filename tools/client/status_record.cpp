#include "client/status_record.h"

#include "base/bytes.h"

static bool bit(uint8_t flags, unsigned number) {
    return (flags >> number & 1U) != 0;
}

std::optional<StatusRecord> parse_status(const PacketView &packet) {
    if (packet_kind(packet) != PacketKind::status) {
        return std::nullopt;
    }
    const uint8_t *at = packet.payload.data();
    StatusRecord record{};
    record.app_type = at[1];
    record.client_count = at[3];
    record.access_point = bit(at[4], 0);
    record.wifi = bit(at[4], 1);
    record.camera_network = bit(at[4], 2);
    record.is_recording = bit(at[6], 0);
    record.udp = bit(at[6], 1);
    record.rtmp = bit(at[6], 2);
    record.srt = bit(at[6], 3);
    record.rtsp = bit(at[6], 4);
    record.rtmp_number = get_u32(at + 7);
    record.recorder_number = get_u32(at + 11);
    record.rc_state[0] = at[15];
    record.rc_state[1] = at[16];
    record.osd = bit(at[17], 0);
    record.osd_borders = bit(at[17], 1);
    record.temperature = at[18] < 0x80 ? at[18] : at[18] - 0x100;
    record.version[0] = at[19];
    record.version[1] = at[20];
    record.version[2] = at[21];
    record.storage_place = at[22];
    record.free_megabytes = get_u32(at + 23);
    record.srt_seconds = get_u32(at + 27);
    record.rtsp_number = get_u32(at + 31);
    record.movement_running = at[35] != 0;
    record.movement_index = at[36];
    record.movement_count = at[37];
    record.movement_nearest = at[38];
    record.data_source = at[39] != 0;
    record.video = at[40] != 0;
    return record;
}
