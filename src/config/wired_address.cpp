#include "config/wired_address.h"

#include "base/shell.h"

#include <cstdio>

constexpr size_t command_size = 100;

void set_static_address(const ConfigRecord &config) {
    char command[command_size];
    snprintf(command, sizeof command, "ifconfig eth0 %s netmask %s up",
             shell_word(config.eth_static_ip).c_str(), shell_word(config.eth_static_mask).c_str());
    run_shell(command);
}
