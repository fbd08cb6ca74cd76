#include "config/wired_address.h"

#include "base/shell.h"

#include <cstdio>

constexpr size_t command_size = 100;

void set_static_address(const ConfigRecord &config) {
    // Room for every character escaped.
    char address[sizeof config.eth_static_ip * 4 + 3];
    char mask[sizeof config.eth_static_mask * 4 + 3];
    char command[command_size];
    snprintf(command, sizeof command, "ifconfig eth0 %s netmask %s up",
             shell_word(address, sizeof address, config.eth_static_ip),
             shell_word(mask, sizeof mask, config.eth_static_mask));
    run_shell(command);
}
