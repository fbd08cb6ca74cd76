#include "beacon_web/gimbal_hold.h"

#include "client/packet.h"

static bool is_at_rest(const Sticks &sticks) {
    return sticks == Sticks{};
}

std::optional<std::string> take_sticks(GimbalHold &hold, const void *holder, const Sticks &sticks,
                                       TimePoint now) {
    if (is_at_rest(sticks)) {
        let_go(hold, holder);
        return step_gimbal(hold, now);
    }
    hold = {holder, now, 0};
    return gimbal_payload(sticks[0], sticks[1], sticks[2]);
}

void let_go(GimbalHold &hold, const void *holder) {
    if (hold.holder == holder && holder != nullptr) {
        hold.holder = nullptr;
        hold.zeros_left = zero_repeats;
    }
}

std::optional<std::string> step_gimbal(GimbalHold &hold, TimePoint now) {
    if (hold.holder != nullptr && seconds_between(hold.heard, now) > gimbal_patience) {
        let_go(hold, hold.holder);
    }
    if (hold.zeros_left == 0) {
        return std::nullopt;
    }
    --hold.zeros_left;
    return gimbal_payload(0, 0, 0);
}
