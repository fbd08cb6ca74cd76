#include "config/boot_turn.h"

#include "base/pause.h"
#include "base/shell.h"

#include <atomic>
#include <cstdio>

constexpr uint32_t busy_poll_us = 100000;
constexpr uint32_t last_poll_us = 5000;
constexpr int last_polls = 200;

// The configuration busy flag: true while a thread has the turn.
static std::atomic<bool> busy;
// The number of threads that have the turn or wait for it.
static std::atomic<int> takers;

void take_boot_turn() {
    takers.fetch_add(1);
    while (busy.exchange(true)) {
        fputs("Config busy, waiting...\n", stderr);
        sleep_us(busy_poll_us);
    }
}

void end_boot_turn() {
    busy.store(false);
    takers.fetch_sub(1);
}

static bool take_last_turn() {
    for (int i = 0; i < last_polls; ++i) {
        // A thread that waits has settings that are not saved yet.
        if (takers.load() == 0 && !busy.exchange(true)) {
            takers.fetch_add(1);
            return true;
        }
        sleep_us(last_poll_us);
    }
    return false;
}

void end_boot_turns() {
    take_last_turn();
}

void reboot_between_turns() {
    const bool has_turn = take_last_turn();
    run_shell("reboot");
    if (has_turn) {
        end_boot_turn();
    }
}
