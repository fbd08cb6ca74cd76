#include "net/dispatcher.h"

#include "base/bytes.h"
#include "base/clock.h"
#include "base/json_command.h"
#include "base/own_ports.h"
#include "base/process_end.h"
#include "base/shell.h"
#include "base/text.h"
#include "config/answer.h"
#include "config/boot_turn.h"
#include "config/config.h"
#include "config/update.h"
#include "config/wlan_iface.h"
#include "media/data_source.h"
#include "net/relay.h"
#include "net/wlan_scan.h"
#include "rc/rc_block.h"
#include "transfer/file_download.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

constexpr const char *screenshot_file = "/run/quillorbeacon/screenshot.png";
constexpr size_t screenshot_limit = 50000; // a picture this large or larger is not sent

// The first payload byte is the kind of request.
enum ClientRequest : uint8_t {
    request_info = 0,
    request_register = 2, // byte 1: 1 for "no video/audio"
    request_remove = 3,
    request_gimbal = 5, // byte 1: 0 for the app gimbal values, otherwise for the data source
    request_screenshot = 9,
    request_source_command = '!',
    request_json = '{',
};

constexpr uint8_t mode_data_only = 1;

// The sender of a request, who gets the reply.
struct Requester {
    const char *host;
    uint16_t port;
};

static void reply_with_text(const std::string &text, const Requester &requester) {
    relay_text_reply(text.data(), text.size(), requester.host, requester.port);
}

static void reply_with_screenshot(const Requester &requester) {
    const int fd = open(screenshot_file, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return;
    }
    std::string picture(screenshot_limit, '\0');
    const ssize_t length = read(fd, picture.data(), picture.size());
    close(fd);
    if (length > 0 && static_cast<size_t>(length) < screenshot_limit) {
        relay_image_reply(picture.data(), static_cast<size_t>(length), requester.host,
                          requester.port);
    }
}

// The commands.

static void answer_config_request(const cJSON *command, const Requester &requester) {
    const char *section = find_member(command, "param");
    if (section == nullptr) {
        return;
    }
    fprintf(stderr, "UDP server: Config request for %s\n", section);
    reply_with_text(build_config_answer(section), requester);
}

static void reboot_board() {
    run_shell("sync");
    reboot_between_turns();
}

// The interface for a client's selector; empty when the selector is unknown.
static std::string selected_interface(const char *selector) {
    const ConfigRecord &config = config_record();
    if (strcmp(selector, "cam") == 0) {
        return map_wlan_iface(config.camera_iface);
    }
    if (strcmp(selector, "lan") == 0) {
        return map_wlan_iface(config.wifi_iface);
    }
    return map_wlan_iface(selector);
}

static void scan_wlan(const char *selector, const Requester &requester) {
    const std::string interface = selected_interface(selector);
    if (interface.empty()) {
        fputs("Interface  not found\n", stderr); // the name in the line is empty
        return;
    }
    fprintf(stderr, "Wlan scan request for interface %s\n", interface.c_str());
    std::string results = R"({"cmd":"wlanscan","param":")" + std::string(selector) +
                          R"(","value":")" + wlan_scan(interface.c_str()) + R"("})";
    results.resize(std::min(results.size(), relay_payload_capacity - 1));
    fprintf(stderr, "scan results: %s\n", results.c_str());
    reply_with_text(results, requester);
}

static void run_wlan_command(const cJSON *command, const Requester &requester) {
    const char *param = require_member(command, "param");
    const char *selector = require_member(command, "value");
    if (strcmp(param, "scan") == 0) {
        scan_wlan(selector, requester);
    }
}

static void run_file_command(const cJSON *command, const Requester &requester) {
    if (strcmp(require_member(command, "param"), "get") == 0) {
        request_file_download(requester.host, requester.port, member_or_empty(command, "value"),
                              parse_number(member_or_empty(command, "value2")));
    }
}

// A receiver's state, read from the dispatcher's own mapping. It is opened on first use, and tried
// again on each call while that fails. Atomic, because two threads run commands.
static int rc_state(int receiver) {
    static std::atomic<const uint8_t *> mapping;
    const uint8_t *block = mapping.load(std::memory_order_acquire);
    if (block == nullptr) {
        block = open_rc_block(MapTry::first);
        mapping.store(block, std::memory_order_release);
    }
    return rc_receiver_state(block, receiver);
}

static void reply_with_rc_channels(int receiver, const Requester &requester) {
    const std::string channels = rc_channels_json(rc_block(), receiver);
    reply_with_text(R"({"cmd":"rc)" + std::to_string(receiver + 1) + R"(","state":)" +
                        std::to_string(rc_state(receiver)) + R"(,"ch":)" + channels + "}",
                    requester);
}

static void set_rc_config(int receiver, const char *channels) {
    // Added as unsigned: a client may send any number, INT_MAX included.
    const auto number = static_cast<int>(static_cast<unsigned>(receiver) + 1);
    fprintf(stderr, "Set RC%d config: %s\n", number, channels);
    if (receiver == 0 || receiver == 1) {
        load_rc_channels(rc_block(), receiver, channels);
        save_rc_channels();
    }
}

// The state that a calibration command sets; 0 when it is none.
static int calibration_state(const std::string &param) {
    return param == "calibrate-minmax" ? 2
           : param == "finish-minmax"  ? 3
           : param == "set-center"     ? 4
                                       : 0;
}

// The commands that change a receiver.
static void change_rc(const std::string &param, const cJSON *command) {
    const int state = calibration_state(param);
    if (state == 0 && param != "set-config") {
        return;
    }
    const char *value = member_or_empty(command, "value");
    if (!begins_with_number(value)) {
        fprintf(stderr, "RC command %s names no receiver, nothing is changed\n", param.c_str());
        return;
    }
    if (state != 0) {
        set_rc_state(parse_number(value), state);
    } else {
        set_rc_config(parse_number(value), member_or_empty(command, "value2"));
    }
}

static void run_rc_command(const cJSON *command, const Requester &requester) {
    const std::string param = require_member(command, "param");
    if (param == "get-channels") {
        reply_with_rc_channels(0, requester);
        reply_with_rc_channels(1, requester);
    } else {
        change_rc(param, command);
    }
}

// Each command is compared in turn; a reboot does not return early.
static void run_json_command(const char *text, const Requester &requester) {
    fprintf(stderr, "parse_packet json %s\n", text);
    cJSON *command = parse_command(text);
    const std::string name = require_member(command, "cmd");
    if (name == "config_request") {
        answer_config_request(command, requester);
    }
    if (name == "updateconfig") {
        apply_config_update(text);
    }
    if (name == "restart") {
        end_process(exit_status_restart);
    }
    if (name == "reboot") {
        reboot_board();
    }
    if (name == "wlan") {
        run_wlan_command(command, requester);
    }
    if (name == "file") {
        run_file_command(command, requester);
    }
    if (name == "rc") {
        run_rc_command(command, requester);
    }
    cJSON_Delete(command);
}

// The payload: the kind, a 0, and three signed 16-bit numbers, each a fraction of 32767. Missing
// bytes of a short payload read as 0.
static void take_gimbal_values(const uint8_t *payload) {
    constexpr double unit = 3.051850947599719e-5;
    const auto value_at = [&](size_t at) {
        return static_cast<int16_t>(get_u16(payload + at)) * unit;
    };
    set_app_gimbal_values(value_at(2), value_at(4), value_at(6));
}

void dispatch_source_command(uint8_t *payload, uint16_t /*length*/, const char *host,
                             uint16_t port) {
    run_json_command(reinterpret_cast<const char *>(payload), {host, port});
}

ClientTurn client_turn(uint8_t kind) {
    switch (kind) {
    case request_info:
        return ClientTurn::after_own;
    case request_screenshot:
    case request_source_command:
    case request_json:
        return ClientTurn::in_order;
    default: // also what is ignored
        return ClientTurn::at_once;
    }
}

void dispatch_client_packet(uint8_t *payload, uint16_t length, const char *host, uint16_t port) {
    // Ignore the server's own datagrams.
    if (strcmp(host, "127.0.0.1") == 0 && port == control_port) {
        return;
    }
    switch (payload[0]) {
    case request_info:
        send_info_reply(host, port);
        break;
    case request_register:
        // A missing mode byte reads as 0, because zeros follow the payload.
        register_client(relay_clients(), ipv4_port(host, port), payload[1] == mode_data_only,
                        now_ms());
        break;
    case request_remove:
        remove_client(relay_clients(), ipv4_port(host, port));
        break;
    case request_gimbal:
        if (payload[1] != 0) {
            send_to_data_source(payload, length);
        } else {
            take_gimbal_values(payload);
        }
        break;
    case request_screenshot:
        reply_with_screenshot({host, port});
        break;
    case request_source_command:
        send_to_data_source(payload, length);
        break;
    case request_json:
        run_json_command(reinterpret_cast<const char *>(payload), {host, port});
        break;
    default:
        break;
    }
}
