#include "beacon_sim/motion.h"

#include "base/shared_numbers.h"
#include "rc/rc_block_layout.h"

#include <algorithm>

static void set_raw(const Motion &motion, int channel, uint16_t raw) {
    store_whole(motion.rc_block + rc_channels_at + static_cast<size_t>(channel) * rc_channel_size +
                    channel_raw_at,
                raw);
}

// Call it after writing the values: the daemon reads them when this time is new. 0 would mean none.
static void set_update_time(const Motion &motion, int receiver) {
    store_whole(motion.rc_block + rc_update_at + static_cast<size_t>(receiver) * 4,
                std::max(wall_clock_ms(), uint32_t{1}));
}

static void move_by_script(const Motion &motion, double seconds) {
    bool is_used[rc_receiver_count] = {};
    for (int i = 0; i < stick_channel_count; ++i) {
        if (!motion.script.channels[static_cast<size_t>(i)].empty()) {
            set_raw(motion, i,
                    stick_raw_value(motion.script.channels[static_cast<size_t>(i)], seconds));
            is_used[i / rc_channels_per_receiver] = true;
        }
    }
    for (int receiver = 0; receiver < rc_receiver_count; ++receiver) {
        if (is_used[receiver]) {
            set_update_time(motion, receiver);
        }
    }
}

static void move_by_keys(const Motion &motion) {
    for (int i = 0; i < key_channel_count; ++i) {
        set_raw(motion, i, motion.keys.raw[i]);
    }
    set_update_time(motion, 0);
}

static void turn(Motion &motion, int64_t now) {
    constexpr double longest_turn = 0.1; // so that the gimbal does not jump after the machine slept
    const double passed =
        motion.last_turn == 0 ? 0.0 : static_cast<double>(now - motion.last_turn) / 1e9;
    motion.last_turn = now;
    double speeds[gimbal_axes];
    read_gimbal_speeds(motion.rc_block, speeds);
    turn_gimbal(motion.gimbal, speeds, std::min(passed, longest_turn));
    write_camera_state(motion.gimbal, motion.camera_state);
}

void run_motion(Motion &motion, int64_t now, int64_t begin) {
    if (!beat_is_due(motion.beat, now)) {
        return;
    }
    turn(motion, now);
    const double seconds = static_cast<double>(now - begin) / 1e9;
    if (motion.input == StickInput::script) {
        move_by_script(motion, seconds);
        if (seconds <= motion.script.seconds) {
            motion.turned = std::max(motion.turned, widest_angle(motion.gimbal));
        }
    } else if (motion.input == StickInput::keys) {
        move_by_keys(motion);
    }
}
