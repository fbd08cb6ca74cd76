#include "client/stream_meter.h"

constexpr double interval = 2.0;

// Pictures that begin in these bytes: slices of a coded picture whose first macroblock is 0, which
// is a single set bit after the unit's type.
static int pictures_in(uint64_t &seen, std::span<const uint8_t> bytes) {
    constexpr unsigned other_slice = 1;
    constexpr unsigned key_slice = 5;
    int pictures = 0;
    for (const uint8_t byte : bytes) {
        seen = (seen << 8U) | byte;
        const bool is_unit = ((seen >> 16U) & 0xFFFFFFU) == 1; // a start code
        const auto type = static_cast<unsigned>((seen >> 8U) & 0x1FU);
        if (is_unit && (type == other_slice || type == key_slice) && (byte & 0x80U) != 0) {
            ++pictures;
        }
    }
    return pictures;
}

static void note_sequence(StreamMeter &meter, uint32_t sequence, TimePoint now) {
    const bool was_started = meter.count.started;
    const uint32_t expected = meter.count.expected;
    const uint64_t lost = meter.count.lost;
    const Arrival arrival = count_packet(meter.count, sequence);
    if (arrival != Arrival::in_order || meter.count.lost != lost) {
        meter.bits_seen = ~uint64_t{0}; // a start code does not reach across a gap
    }
    const bool is_new_count =
        arrival == Arrival::in_order && meter.count.lost == lost && sequence != expected;
    if (!was_started || is_new_count) {
        meter.daemon_since = now;
        meter.daemon_restarts += was_started ? 1 : 0;
    }
}

void meter_packet(StreamMeter &meter, const PacketView &packet, TimePoint now) {
    note_sequence(meter, packet.sequence, now);
    const double megabits = 8e-6 * static_cast<double>(packet.payload.size());
    switch (packet_kind(packet)) {
    case PacketKind::video:
        meter.sums.video += megabits;
        meter.sums.pictures += pictures_in(meter.bits_seen, packet.payload);
        break;
    case PacketKind::audio:
        meter.sums.audio += megabits;
        break;
    case PacketKind::camera:
        meter.sums.camera += megabits;
        break;
    default:
        break;
    }
}

void step_meter(StreamMeter &meter, TimePoint now) {
    if (meter.begun == TimePoint{}) {
        meter.begun = now;
        meter.sums = {};
        return;
    }
    const double seconds = seconds_between(meter.begun, now);
    if (seconds < interval) {
        return;
    }
    meter.rates = StreamRates{meter.sums.pictures / seconds, meter.sums.video / seconds,
                              meter.sums.audio / seconds, meter.sums.camera / seconds};
    meter.sums = {};
    meter.begun = now;
}
