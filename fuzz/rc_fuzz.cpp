// Radio-control passes over a block with any bytes, as another program may have written them, and
// with any settings and channel lists.
#include "config/config.h"
#include "input.h"
#include "rc/rc_block.h"
#include "rc/rc_block_layout.h"
#include "rc/rc_pass.h"

#include <algorithm>
#include <cstring>

static uint32_t time_now;

static uint32_t clock_now() {
    return time_now;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input{data, size};
    alignas(8) static uint8_t block[rc_block_size];
    std::memset(block, 0, sizeof block);
    ConfigRecord &config = config_record();
    config.rc_pan_smooth = static_cast<int32_t>(input.number());
    config.app_tilt_smooth = static_cast<int32_t>(input.number());
    config.gimbal_movement_type = static_cast<int32_t>(input.byte() % 2);
    load_rc_channels(block, static_cast<int>(input.byte() % 2), input.c_text().c_str());
    RcLoopState state{};
    const uint32_t passes = input.byte() % 8;
    for (uint32_t pass = 0; pass <= passes; ++pass) {
        time_now += input.word();
        const size_t at = input.word() % rc_block_size;
        const std::string bytes = input.text();
        std::memcpy(block + at, bytes.data(), std::min(bytes.size(), rc_block_size - at));
        const RcEvents events = run_rc_pass(block, config, clock_now, {0.5, -1, 1}, state);
        check(events.menu_count <= std::size(events.menu) &&
              events.record_count <= std::size(events.record));
        rc_channels_json(block, static_cast<int>(pass % 2));
        check(rc_channels_setting(block, static_cast<int>(pass % 2)).size() <
              sizeof config.rc1_channels);
    }
    return 0;
}
