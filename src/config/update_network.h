#pragma once

// Puts changed settings of the wired, wireless and virtual networks into effect.
// Stands on: config/boot_turn, config/config, config/wired_address, config/writer.

// Each function is called after the settings of its command have been stored in the record. It runs
// on the command's thread and returns when its shell commands are done. A client's value is one
// word in a shell command.

#include <cjson/cJSON.h>

// Saves, then gives the wired interface its static address or a new lease.
void then_ethernet(const cJSON *command);

// Prints the new settings on standard error, saves, sets the country and makes the network's helper
// scripts bring the interfaces up again.
void then_wlan(const cJSON *command);

// The virtual network: saves, and stops it if it is off; joins or leaves the network "value4";
// deletes the board's identity.
void then_zerotier_params(const cJSON *command);
void then_zerotier_join(const cJSON *command);
void then_zerotier_leave(const cJSON *command);
void then_zerotier_clear(const cJSON *command);
