#include "rc/rc_block.h"

#include "base/relaxed.h"
#include "base/shared_memory.h"
#include "base/shared_numbers.h"
#include "base/text.h"
#include "config/config.h"
#include "config/writer.h"
#include "rc/rc_block_layout.h"

#include <atomic>
#include <cjson/cJSON.h>
#include <cstdio>
#include <initializer_list>

// The mapping; set once, by start-up or, if that failed, by the RC loop.
static std::atomic<uint8_t *> mapped_block;
// Written by command threads and the movement runner, read by the RC loop.
static Relaxed<double> app_pan;
static Relaxed<double> app_tilt;
static Relaxed<double> app_roll;

uint8_t *open_rc_block(MapTry which) {
    if (which == MapTry::first) {
        fputs(shared_memory_exists(rc_block_name) ? "Shared raw RC mem opened\n"
                                                  : "Creating new shared raw RC\n",
              stderr);
    }
    return map_shared_memory(whole_object(rc_block_name, rc_block_size), nullptr, which);
}

uint8_t *rc_block() {
    return mapped_block.load(std::memory_order_acquire);
}

uint8_t *init_rc_block() {
    if (rc_block() == nullptr) {
        mapped_block.store(open_rc_block(MapTry::first), std::memory_order_release);
    }
    if (rc_block() == nullptr) {
        fputs("Failed to open raw RC shared memory\n", stderr);
    }
    return rc_block();
}

uint8_t *map_missing_rc_block() {
    uint8_t *block = open_rc_block(MapTry::again);
    if (block != nullptr) {
        clear_rc_calibration(block);
        load_rc_channels(block, 0, config_record().rc1_channels);
        load_rc_channels(block, 1, config_record().rc2_channels);
        mapped_block.store(block, std::memory_order_release);
    }
    return block;
}

static size_t channel_at(int index) {
    return rc_channels_at + static_cast<size_t>(index) * rc_channel_size;
}

uint8_t *rc_channel(uint8_t *block, int index) {
    return block + channel_at(index);
}

const uint8_t *rc_channel(const uint8_t *block, int index) {
    return block + channel_at(index);
}

uint8_t rc_receiver_state(const uint8_t *block, int receiver) {
    return block == nullptr ? uint8_t{rc_absent}
                            : load_whole<uint8_t>(block + rc_state_at + receiver);
}

void clear_rc_calibration(uint8_t *block) {
    for (int i = 0; i < rc_channel_count; ++i) {
        uint8_t *channel = rc_channel(block, i);
        store_whole<uint16_t>(channel + channel_min_at, 0);
        store_whole<uint16_t>(channel + channel_max_at, 0);
        store_whole<uint16_t>(channel + channel_center_at, 0);
        store_whole<uint8_t>(channel + channel_invert_at, 0);
        store_whole(channel + channel_value_at, 0.0);
        store_whole<uint8_t>(channel + channel_function_at, 0);
        store_whole<uint16_t>(channel + channel_dead_band_at, 0);
        store_whole<uint16_t>(channel + channel_limit_at, 0);
        store_whole<uint8_t>(channel + channel_enable_at, 0);
    }
    for (int i = 0; i < rc_function_count; ++i) {
        store_whole(block + rc_values_at + i * sizeof(double), 0.0);
    }
}

// A field of the channel record that the JSON text can set; it has one byte or two.
struct ChannelField {
    const char *key;
    size_t offset;
    bool is_byte;
};

constexpr ChannelField channel_fields[] = {
    {"min", channel_min_at, false}, {"c", channel_center_at, false},
    {"max", channel_max_at, false}, {"i", channel_invert_at, true},
    {"e", channel_enable_at, true}, {"d", channel_dead_band_at, false},
    {"l", channel_limit_at, false}, {"f", channel_function_at, true},
};

// Reads a member that is a number, a boolean or a string of digits. Returns false for anything
// else.
static bool channel_number(const cJSON *item, int32_t &number) {
    if (cJSON_IsString(item) != 0 && is_all_digits(item->valuestring)) {
        number = parse_number(item->valuestring);
        return true;
    }
    number = item->valueint; // of a boolean: 0 or 1
    return cJSON_IsNumber(item) != 0 || cJSON_IsBool(item) != 0;
}

// Returns how many members were ignored because they are not numbers.
static int load_channel(uint8_t *channel, const cJSON *element) {
    int bad_count = 0;
    for (const ChannelField &field : channel_fields) {
        const cJSON *item = cJSON_GetObjectItem(element, field.key);
        int32_t number = 0;
        if (item == nullptr) {
            continue;
        }
        if (!channel_number(item, number)) {
            ++bad_count;
        } else if (field.is_byte) {
            store_whole<uint8_t>(channel + field.offset, static_cast<uint8_t>(number));
        } else {
            store_whole<uint16_t>(channel + field.offset, static_cast<uint16_t>(number));
        }
    }
    return bad_count;
}

// As load_channel, for the channel that the element names.
static int load_element(uint8_t *block, int receiver, const cJSON *element) {
    const cJSON *item = cJSON_GetObjectItem(element, "ch");
    int32_t number = 0;
    if (item == nullptr) {
        return 0;
    }
    if (!channel_number(item, number)) {
        return 1;
    }
    if (number < 1 || number > rc_channels_per_receiver) {
        return 0;
    }
    const int index = number - 1 + receiver * rc_channels_per_receiver;
    return load_channel(rc_channel(block, index), element);
}

void load_rc_channels(uint8_t *block, int receiver, const char *json_text) {
    if (block == nullptr) {
        fputs("Failed to get shared RC buffer\n", stderr);
        return;
    }
    cJSON *list = cJSON_Parse(json_text);
    const cJSON *element = cJSON_IsArray(list) != 0 ? cJSON_GetArrayItem(list, 0) : nullptr;
    int bad_count = 0;
    for (; element != nullptr; element = element->next) {
        bad_count += load_element(block, receiver, element);
    }
    cJSON_Delete(list);
    if (bad_count > 0) {
        fprintf(stderr, "RC%d channel list: ignored %d value(s) that are not numbers\n",
                receiver + 1, bad_count);
    }
}

// The 16 objects of a receiver, written by `format_channel`, as a JSON array.
static std::string channel_list(const uint8_t *block, int receiver,
                                std::string (*format_channel)(const uint8_t *channel, int number)) {
    std::string list = "[";
    for (int number = 1; number <= rc_channels_per_receiver; ++number) {
        const int index = number - 1 + receiver * rc_channels_per_receiver;
        list += (number > 1 ? "," : "") + format_channel(rc_channel(block, index), number);
    }
    return list + "]";
}

static std::string live_channel(const uint8_t *channel, int /*number*/) {
    char text[500]; // a corrupt value may print 309 digits
    snprintf(
        text, sizeof text,
        R"({"raw":%d,"min":%d,"max":%d,"c":%d,"i":%d,"val":%1.3f,"d":%d,"e":%d,"l":%d,"f":%d})",
        load_whole<uint16_t>(channel + channel_raw_at),
        load_whole<uint16_t>(channel + channel_min_at),
        load_whole<uint16_t>(channel + channel_max_at),
        load_whole<uint16_t>(channel + channel_center_at),
        load_whole<uint8_t>(channel + channel_invert_at),
        load_whole<double>(channel + channel_value_at),
        load_whole<uint16_t>(channel + channel_dead_band_at),
        load_whole<uint8_t>(channel + channel_enable_at),
        load_whole<uint16_t>(channel + channel_limit_at),
        load_whole<uint8_t>(channel + channel_function_at));
    return text;
}

std::string rc_channels_json(const uint8_t *block, int receiver) {
    return block == nullptr ? "" : channel_list(block, receiver, live_channel);
}

static std::string stored_channel(const uint8_t *channel, int number) {
    char text[200];
    snprintf(text, sizeof text,
             R"({"ch":%d,"min":%d,"max":%d,"c":%d,"i":%d,"e":%d,"d":%d,"l":%d,"f":%d})", number,
             load_whole<uint16_t>(channel + channel_min_at),
             load_whole<uint16_t>(channel + channel_max_at),
             load_whole<uint16_t>(channel + channel_center_at),
             load_whole<uint8_t>(channel + channel_invert_at),
             load_whole<uint8_t>(channel + channel_enable_at),
             load_whole<uint16_t>(channel + channel_dead_band_at),
             load_whole<uint16_t>(channel + channel_limit_at),
             load_whole<uint8_t>(channel + channel_function_at));
    return text;
}

std::string rc_channels_setting(const uint8_t *block, int receiver) {
    return channel_list(block, receiver, stored_channel);
}

void save_rc_channels() {
    const uint8_t *block = rc_block();
    ConfigRecord &config = config_record();
    if (block == nullptr) {
        fprintf(stderr, "RC channels are not saved: %s\n",
                config.slow_cpu != 0 ? "this slow board runs no radio control"
                                     : "the shared block is not there");
        return;
    }
    copy_text(config.rc1_channels, sizeof config.rc1_channels,
              rc_channels_setting(block, 0).c_str());
    copy_text(config.rc2_channels, sizeof config.rc2_channels,
              rc_channels_setting(block, 1).c_str());
    save_config();
}

static bool is_receiver(int receiver) {
    return receiver >= 0 && receiver < rc_receiver_count;
}

// Sets the receiver's state byte; ignores a receiver that does not exist.
static void set_state_byte(int receiver, RcState state) {
    if (is_receiver(receiver) && rc_block() != nullptr) {
        store_whole<uint8_t>(rc_block() + rc_state_at + receiver, state);
    }
}

// Copies each channel's raw value, read once, to the given calibration fields.
static void take_raw_values(int receiver, std::initializer_list<size_t> fields) {
    if (!is_receiver(receiver) || rc_block() == nullptr) {
        return;
    }
    for (int i = 0; i < rc_channels_per_receiver; ++i) {
        uint8_t *channel = rc_channel(rc_block(), receiver * rc_channels_per_receiver + i);
        const auto raw = load_whole<uint16_t>(channel + channel_raw_at);
        for (const size_t field_at : fields) {
            store_whole(channel + field_at, raw);
        }
    }
}

void set_rc_state(int receiver, int state) {
    // Added as unsigned: a client may send any number, INT_MAX included.
    const auto number = static_cast<int>(static_cast<unsigned>(receiver) + 1);
    fprintf(stderr, "Set RC%d state %d\n", number, state);
    switch (state) {
    case 2:
        fprintf(stderr, "RC%d begin calibration min/max\n", number);
        set_state_byte(receiver, rc_calibrating);
        take_raw_values(receiver, {channel_min_at, channel_max_at, channel_center_at});
        break;
    case 3:
        fprintf(stderr, "RC%d finish calibration min/max\n", number);
        save_rc_channels();
        set_state_byte(receiver, rc_present);
        break;
    case 4:
        fprintf(stderr, "RC%d calibration center\n", number);
        take_raw_values(receiver, {channel_center_at});
        save_rc_channels();
        set_state_byte(receiver, rc_present);
        break;
    default:
        break;
    }
}

void set_app_gimbal_values(double pan, double tilt, double roll) {
    app_pan = pan;
    app_tilt = tilt;
    app_roll = roll;
}

GimbalValues app_gimbal_values() {
    return {app_pan, app_tilt, app_roll};
}
