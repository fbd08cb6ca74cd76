#include "base/pause.h"
#include "core/input_poller.h"
#include "core/startup.h"
#include "core/status_monitor.h"

constexpr uint32_t poll_period_us = 100000;

int main() {
    start_up();
    InputState inputs = initial_input_state();
    for (;;) {
        poll_inputs(inputs);
        poll_status();
        sleep_us(poll_period_us);
    }
}
