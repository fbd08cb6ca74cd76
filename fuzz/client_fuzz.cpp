// Datagrams and answers of something that may be no daemon, through the client library.
#include "client/answers.h"
#include "client/command_check.h"
#include "client/file_fetch.h"
#include "client/mend.h"
#include "client/packet.h"
#include "client/rc_channels.h"
#include "client/sequence_count.h"
#include "client/status_json.h"
#include "client/status_record.h"
#include "client/stream_start.h"
#include "input.h"

#include <nlohmann/json.hpp>

static void take_answer(const std::string &text) {
    const std::optional<Json> answer = parse_answer(text);
    if (answer) {
        value_text(*answer);
        json_text(*answer);
    }
    parse_receiver(text);
    // What was mended once needs no mending.
    const std::string mended = mend_answer(text);
    check(mend_utf8(mended) == mended);
    decode_hex_escapes(text);
    const CheckedCommand command = check_command(text);
    check(command.text.empty() != command.reason.empty() || text.empty());
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input{data, size};
    SequenceCount count;
    StreamStart start;
    FileFetch fetch = begin_fetch("/media/a.mp4", 5, TimePoint{});
    TimePoint now{};
    while (input.left > 0) {
        std::string datagram = input.text();
        if (input.byte() % 4 != 0) {
            // A header that says the right length, or nearly all would be refused.
            const uint32_t type = input.byte() % 6;
            const uint32_t sequence = input.number();
            std::string header{'R', static_cast<char>(type)};
            for (const uint32_t part : {static_cast<uint32_t>(datagram.size()) & 0xFF,
                                        static_cast<uint32_t>(datagram.size()) >> 8,
                                        sequence & 0xFF, (sequence >> 8) & 0xFF,
                                        (sequence >> 16) & 0xFF, sequence >> 24, 1U, 0U, 0U, 0U}) {
                header += static_cast<char>(part);
            }
            datagram = header + datagram;
        }
        take_answer(datagram.substr(std::min<size_t>(12, datagram.size())));
        const auto *bytes = reinterpret_cast<const uint8_t *>(datagram.data());
        const std::optional<PacketView> packet = parse_packet({bytes, datagram.size()});
        if (!packet) {
            continue;
        }
        check(packet->payload.size() + 12 == datagram.size());
        packet_kind(*packet);
        parse_info(*packet);
        count_packet(count, packet->sequence);
        if (const std::optional<StatusRecord> record = parse_status(*packet)) {
            status_json(*record);
        }
        take_stream(start, packet->payload, input.byte() % 4 == 0);
        now += std::chrono::milliseconds(input.word());
        step_fetch(fetch, now);
        const FetchEvent event = take_packet(fetch, *packet, now);
        check(event.data.empty() || (event.data.data() >= packet->payload.data() &&
                                     event.data.data() + event.data.size() <=
                                         packet->payload.data() + packet->payload.size()));
    }
    return 0;
}
