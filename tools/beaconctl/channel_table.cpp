#include "beaconctl/channel_table.h"

#include <array>
#include <cstdio>

static std::string channel_line(size_t number, const ChannelAnswer &channel) {
    char text[160];
    snprintf(text, sizeof text, "  %2zu  %5d  %5d  %6d  %5d  %6.3f  %9d  %4d%%  %-3s  %s", number,
             channel.raw, channel.min, channel.centre, channel.max, channel.value,
             channel.dead_band, channel.limit, channel.is_inverted ? "yes" : "no",
             function_text(channel.function).c_str());
    return text;
}

std::vector<std::string> receiver_lines(int number, const ReceiverAnswer &receiver) {
    constexpr std::array states = {"absent", "present", "calibrating"};
    const auto state = static_cast<size_t>(receiver.state);
    std::vector<std::string> lines = {
        "RC" + std::to_string(number) + " " +
        (state < states.size() ? states[state] : "state " + std::to_string(receiver.state))};
    if (receiver.state == rc_absent) {
        return lines;
    }
    lines.emplace_back(
        "  ch    raw    min  centre    max   value  dead band  limit  inv  function");
    size_t channel_number = 0;
    for (const ChannelAnswer &channel : receiver.channels) {
        lines.push_back(channel_line(++channel_number, channel));
    }
    return lines;
}

std::string number_list(const std::vector<int> &numbers) {
    std::string list;
    for (const int number : numbers) {
        list += (list.empty() ? "" : ", ") + std::to_string(number);
    }
    return list.empty() ? "none" : list;
}
