#include "config/update_network.h"

#include "base/json_command.h"
#include "base/shell.h"
#include "config/boot_turn.h"
#include "config/config.h"
#include "config/wired_address.h"
#include "config/writer.h"

#include <cstdio>
#include <string>

constexpr size_t command_size = 100;
constexpr size_t country_command_size = 30;

// Runs a command that ends with a client's value, truncated to `size` - 1 characters.
static void run_with_value(const char *before, const char *value, size_t size = command_size) {
    const std::string command = before + shell_word(value);
    run_shell(command.substr(0, size - 1).c_str());
}

void then_ethernet(const cJSON * /*command*/) {
    const ConfigRecord &config = config_record();
    save_config();
    if (config.eth_static_ip_enabled == 0) {
        run_shell("ip addr flush dev eth0");
        run_shell("ip route delete default");
        run_shell("dhcpcd --rebind eth0");
        return;
    }
    run_shell("dhcpcd --release eth0");
    run_shell("ip addr flush dev eth0");
    set_static_address(config);
    run_shell("ip route add dev eth0 default");
}

static void log_wlan_settings(const ConfigRecord &config) {
    fprintf(stderr, "New Wlan settings:\n");
    fprintf(stderr, "\tCamera iface: %s\n", config.camera_iface);
    fprintf(stderr, "\tCamera SSID: %s\n", config.camera_ssid);
    fprintf(stderr, "\tCamera PSK: %s\n", config.camera_psk);
    fprintf(stderr, "\tNetwork iface: %s\n", config.wifi_iface);
    fprintf(stderr, "\tNetwork SSID: %s\n", config.wifi_ssid);
    fprintf(stderr, "\tNetwork PSK: %s\n", config.wifi_psk);
    fprintf(stderr, "\tAccess Point iface: %s\n", config.ap_iface);
    fprintf(stderr, "\tAccess Point SSID: %s\n", config.ap_ssid);
    fprintf(stderr, "\tAccess Point PSK: %s\n", config.ap_psk);
    fprintf(stderr, "\tAccess Point Mode: %d\n", static_cast<int>(config.ap_mode));
    fprintf(stderr, "\tAccess Point Channel: %d\n", static_cast<int>(config.ap_channel));
    fprintf(stderr, "\tAccess Point Country: %s\n", config.ap_country);
    fprintf(stderr, "\tSystem Country: %s\n", config.system_country);
}

void then_wlan(const cJSON * /*command*/) {
    const ConfigRecord &config = config_record();
    log_wlan_settings(config);
    save_config();
    run_with_value("iw reg set ", config.system_country, country_command_size);
    run_shell("rm -f /run/quillorbeacon/ap.ready");
    run_shell("rm -f /run/quillorbeacon/wlan.ready");
    run_shell("rm -f /run/quillorbeacon/camera.ready");
}

void then_zerotier_params(const cJSON * /*command*/) {
    if (config_record().zerotier_enabled == 0) {
        run_shell("killall -q zerotier-one");
    }
    save_config();
}

void then_zerotier_join(const cJSON *command) {
    run_with_value("zerotier-cli join ", member_or_empty(command, "value4"));
}

void then_zerotier_leave(const cJSON *command) {
    run_with_value("zerotier-cli leave ", member_or_empty(command, "value4"));
}

void then_zerotier_clear(const cJSON * /*command*/) {
    take_boot_turn();
    run_shell("mount -o rw,remount /boot");
    run_shell("rm -f /boot/identity.public /boot/identity.secret");
    run_shell("mount -o ro,remount /boot");
    end_boot_turn();
    run_shell("killall -q zerotier-one");
}
