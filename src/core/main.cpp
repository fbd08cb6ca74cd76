#include "base/pause.h"
#include "base/process_end.h"
#include "core/command_line.h"
#include "core/input_poller.h"
#include "core/startup.h"
#include "core/status_monitor.h"

constexpr uint32_t poll_period_us = 100000;

int main(int argc, char **argv) {
    const std::string text = requested_text(argc, argv);
    if (!text.empty()) {
        return print_text(text) ? 0 : exit_status_failure;
    }
    start_up();
    InputState inputs = initial_input_state();
    for (;;) {
        poll_inputs(inputs);
        poll_status();
        sleep_us(poll_period_us);
    }
}
