#include "client/rc_channels.h"

#include "client/answers.h"
#include "client/command_text.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

constexpr int moved_distance = 100; // from one end to the other, for a channel that was moved
constexpr int channel_tries = 5;
constexpr int trembling = 20; // an untouched stick varies by less

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

static bool take_channels(const PacketView &packet, ReceiverAnswers &receivers,
                          std::array<bool, 2> &has_come) {
    for (size_t i = 0; i < receivers.size(); ++i) {
        const auto text = answer_text(packet, i == 0 ? "rc1" : "rc2");
        if (const auto parsed = text ? parse_receiver(*text) : std::nullopt) {
            receivers[i] = *parsed;
            has_come[i] = true;
        }
    }
    return has_come[0] && has_come[1];
}

Request channels_request(double seconds, ReceiverAnswers &receivers) {
    return make_request(
        command_text({{"cmd", "rc"}, {"param", "get-channels"}}), seconds, channel_tries,
        [&receivers, has_come = std::array<bool, 2>{}](const PacketView &packet) mutable {
            return take_channels(packet, receivers, has_come);
        });
}

// The protocol counts the receivers from 0.
static std::string index_text(int receiver) {
    return std::to_string(receiver - 1);
}

std::string function_text(int function) {
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

bool is_heard(const ReceiverAnswer &receiver, int state) {
    return receiver.state == state &&
           std::any_of(receiver.channels.begin(), receiver.channels.end(),
                       [](const ChannelAnswer &channel) { return channel.raw != 0; });
}

std::vector<int> moved_channels(const ReceiverAnswer &receiver) {
    std::vector<int> numbers;
    int number = 0;
    for (const ChannelAnswer &channel : receiver.channels) {
        ++number;
        if (channel.max - channel.min >= moved_distance) {
            numbers.push_back(number);
        }
    }
    return numbers;
}

std::string calibration_command(CalibrationStep step, int receiver) {
    const char *param = step == CalibrationStep::begin_ends    ? "calibrate-minmax"
                        : step == CalibrationStep::finish_ends ? "finish-minmax"
                                                               : "set-center";
    return command_text({{"cmd", "rc"}, {"param", param}, {"value", index_text(receiver)}});
}

static std::string channel_list(const ReceiverAnswer &receiver) {
    Json channels = Json::array();
    int number = 0;
    for (const ChannelAnswer &channel : receiver.channels) {
        channels.push_back(
            {{"ch", ++number}, {"min", channel.min}, {"c", channel.centre}, {"max", channel.max}});
    }
    return json_text(channels);
}

std::string restore_command(int receiver, const ReceiverAnswer &values) {
    return command_text({{"cmd", "rc"},
                         {"param", "set-config"},
                         {"value", index_text(receiver)},
                         {"value2", channel_list(values)}});
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
