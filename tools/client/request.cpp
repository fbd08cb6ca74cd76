#include "client/request.h"

#include <utility>

Request make_request(std::string payload, double seconds, int tries,
                     std::function<bool(const PacketView &)> take) {
    return {std::move(payload), std::move(take), from_seconds(seconds / tries), tries, {}};
}

RequestStep step_request(Request &request, TimePoint now) {
    if (now < request.due) {
        return RequestStep::wait;
    }
    if (request.sends_left == 0) {
        return RequestStep::silent;
    }
    --request.sends_left;
    request.due = now + request.interval;
    return RequestStep::send;
}

Request info_request(double seconds, int tries, BoardInfo &info) {
    return make_request(info_payload(), seconds, tries, [&](const PacketView &packet) {
        const auto parsed = parse_info(packet);
        info = parsed.value_or(info);
        return parsed.has_value();
    });
}
