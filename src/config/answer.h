#pragma once

// Builds the reply to a "config_request".
// Stands on: config/config, config/config_keys, config/disk_space, config/display_modes,
// config/wlan_iface.

#include <string>

// The reply holds the current settings of one section and the live facts that belong to it. It is a
// JSON object written without escaping; two sections keep a comma before the closing brace.

constexpr size_t config_answer_limit = 9999; // a longer reply is truncated

// Returns the whole reply and prints it on standard error. An unknown section gives the fixed part
// only, and so does "display" while another display query is running. "display" and "zerotier" run
// commands and wait for them. Any thread.
std::string build_config_answer(const char *section);
