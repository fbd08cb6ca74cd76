#include "beaconctl/receivers.h"

#include "client/answers.h"
#include "client/command_text.h"

Outcome request_channels(Link &link, double seconds, ReceiverAnswers &receivers) {
    std::array<bool, 2> has_come{};
    const auto take = [&](const PacketView &packet) {
        for (size_t i = 0; i < receivers.size(); ++i) {
            const auto text = answer_text(packet, i == 0 ? "rc1" : "rc2");
            if (const auto parsed = text ? parse_receiver(*text) : std::nullopt) {
                receivers[i] = *parsed;
                has_come[i] = true;
            }
        }
        return has_come[0] && has_come[1];
    };
    return request(link, command_text({{"cmd", "rc"}, {"param", "get-channels"}}), seconds, 5,
                   take);
}

int ask_channels(Link &link, ReceiverAnswers &receivers) {
    return report_silence(link, request_channels(link, link.timeout, receivers));
}
