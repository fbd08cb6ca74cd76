#include "rc/rc_loop.h"

#include "base/clock.h"
#include "base/pause.h"
#include "media/data_source.h"
#include "net/relay.h"
#include "rc/rc_block.h"
#include "rc/rc_block_layout.h"
#include "rc/rc_pass.h"
#include "rc/smoothing.h"

#include <cstdio>
#include <cstring>
#include <pthread.h>

constexpr uint32_t pass_period_us = 30000;
constexpr uint32_t passes_per_retry = 34; // a second
constexpr uint8_t menu_notice_kind = 8;
constexpr uint16_t menu_notice_size = 2;

static const char *menu_message(MenuCode code) {
    switch (code) {
    case menu_disabled:
        return "RC menu disabled\n";
    case menu_enabled:
        return "RC menu enabled\n";
    case menu_left:
        return "RC menu LEFT\n";
    case menu_right:
        return "RC menu RIGHT\n";
    case menu_up:
        return "RC menu UP\n";
    case menu_down:
        return "RC menu DOWN\n";
    }
    return "";
}

static void send_menu_code(MenuCode code) {
    RelayPacket packet; // NOLINT(cppcoreguidelines-pro-type-member-init): only its start is used
    packet.payload[0] = menu_notice_kind;
    packet.payload[1] = code;
    set_payload_length(packet, menu_notice_size);
    relay_to_clients(relay_type_data, packet);
    fputs(menu_message(code), stderr);
}

static void send_record_command(RecordCommand command) {
    const char *text = command == RecordCommand::start ? R"(!{"cmd":"record","param":"start"})"
                                                       : R"(!{"cmd":"record","param":"stop"})";
    send_to_data_source(text, strlen(text));
}

static void send_events(const RcEvents &events) {
    for (size_t i = 0; i < events.menu_count; ++i) {
        send_menu_code(events.menu[i]);
    }
    for (size_t i = 0; i < events.record_count; ++i) {
        send_record_command(events.record[i]);
    }
}

// The block for a pass. While none can be mapped, a private one without receivers takes its place,
// because the app gimbal values need no receiver.
static uint8_t *block_of_pass(uint32_t pass) {
    alignas(double) static uint8_t private_block[rc_block_size];
    uint8_t *block = rc_block();
    if (block == nullptr && pass % passes_per_retry == 0) {
        block = map_missing_rc_block();
    }
    return block != nullptr ? block : private_block;
}

[[noreturn]] static void *run_loop_thread(void * /*unused*/) {
    name_thread("rc-loop");
    RcLoopState state{};
    for (uint32_t pass = 1;; ++pass) {
        send_events(
            run_rc_pass(block_of_pass(pass), config_record(), now_ms, app_gimbal_values(), state));
        set_smoothed_values({state.app, state.rc, state.total});
        sleep_us(pass_period_us);
    }
}

int init_rc() {
    fputs("Init RC\n", stderr);
    set_app_gimbal_values(0.0, 0.0, 0.0);
    uint8_t *block = init_rc_block();
    if (block != nullptr) {
        clear_rc_calibration(block);
    }
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, run_loop_thread, nullptr) != 0 ||
        start_smoothing_publisher() != 0) {
        return -1;
    }
    fputs("Init RC done\n", stderr);
    return 0;
}
