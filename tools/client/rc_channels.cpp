#include "client/rc_channels.h"

#include "client/answers.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

constexpr int moved_distance = 100; // between a channel's ends, for it to count as moved
constexpr int trembling = 20;       // a stick that nobody touches stays within

static double number_of(const Json &object, const char *name) {
    const auto found = object.find(name);
    return found != object.end() && found->is_number() ? found->get<double>() : 0.0;
}

static int integer_of(const Json &object, const char *name) {
    return static_cast<int>(std::clamp(number_of(object, name), -1e9, 1e9));
}

static ChannelAnswer read_channel(const Json &channel) {
    return {.raw = integer_of(channel, "raw"),
            .min = integer_of(channel, "min"),
            .centre = integer_of(channel, "c"),
            .max = integer_of(channel, "max"),
            .value = number_of(channel, "val"),
            .dead_band = integer_of(channel, "d"),
            .limit = integer_of(channel, "l"),
            .is_inverted = integer_of(channel, "i") != 0,
            .function = integer_of(channel, "f")};
}

std::optional<ReceiverAnswer> parse_receiver(std::string_view answer) {
    auto parsed = parse_answer(answer);
    if (!parsed || !parsed->contains("state") || !parsed->contains("ch")) {
        return std::nullopt;
    }
    ReceiverAnswer receiver;
    receiver.state = integer_of(*parsed, "state");
    for (const Json &channel : (*parsed)["ch"]) {
        receiver.channels.push_back(read_channel(channel));
    }
    parsed->erase("cmd");
    receiver.json = json_text(*parsed);
    return receiver;
}

static std::string function_text(int function) {
    switch (function) {
    case 0:
        return "-";
    case 1:
        return "menu";
    case 2:
        return "pan";
    case 3:
        return "tilt";
    case 4:
        return "roll";
    case 5:
        return "smoothing off";
    case 9:
        return "record switch";
    case 45:
        return "record toggle";
    default:
        return std::to_string(function);
    }
}

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

std::string moved_channels(const ReceiverAnswer &receiver) {
    std::string list;
    size_t number = 0;
    for (const ChannelAnswer &channel : receiver.channels) {
        ++number;
        if (channel.max - channel.min >= moved_distance) {
            list += (list.empty() ? "" : ", ") + std::to_string(number);
        }
    }
    return list.empty() ? "none" : list;
}

std::string channel_list(const ReceiverAnswer &receiver) {
    Json channels = Json::array();
    int number = 0;
    for (const ChannelAnswer &channel : receiver.channels) {
        channels.push_back(
            {{"ch", ++number}, {"min", channel.min}, {"c", channel.centre}, {"max", channel.max}});
    }
    return json_text(channels);
}

bool is_calibrated_alike(const ReceiverAnswer &one, const ReceiverAnswer &other) {
    return std::equal(one.channels.begin(), one.channels.end(), other.channels.begin(),
                      other.channels.end(), [](const ChannelAnswer &a, const ChannelAnswer &b) {
                          return a.min == b.min && a.centre == b.centre && a.max == b.max;
                      });
}

bool has_new_centres(const ReceiverAnswer &earlier, const ReceiverAnswer &now) {
    const bool is_at_centre =
        std::all_of(now.channels.begin(), now.channels.end(), [](const ChannelAnswer &channel) {
            return abs(channel.centre - channel.raw) <= trembling;
        });
    return is_at_centre || !is_calibrated_alike(earlier, now);
}
