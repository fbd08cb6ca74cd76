#include "client/scan.h"

#include "client/answers.h"
#include "client/command_text.h"
#include "client/mend.h"

#include <algorithm>
#include <nlohmann/json.hpp>

// The names are separated by commas.
static std::vector<std::string> split_names(const std::string &list) {
    std::vector<std::string> names;
    for (size_t at = 0; !list.empty() && at <= list.size();) {
        const size_t end = std::min(list.find(',', at), list.size());
        names.push_back(mend_utf8(decode_hex_escapes(list.substr(at, end - at))));
        at = end + 1;
    }
    return names;
}

static bool take_scan(const PacketView &packet, ScanAnswer &answer) {
    const auto text = answer_text(packet, "wlanscan");
    if (!text) {
        return false;
    }
    const auto parsed = parse_answer(*text);
    answer.is_readable = parsed && parsed->contains("value");
    if (answer.is_readable) {
        answer.names = split_names(value_text((*parsed)["value"]));
    }
    return true;
}

Request scan_request(const std::string &interface, double seconds, ScanAnswer &answer) {
    return make_request(command_text({{"cmd", "wlan"}, {"param", "scan"}, {"value", interface}}),
                        seconds, 1,
                        [&answer](const PacketView &packet) { return take_scan(packet, answer); });
}
