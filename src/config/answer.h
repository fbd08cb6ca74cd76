#pragma once

#include <string>

// The reply to a "config_request": the settings of one section as they stand in memory, and the
// live facts that belong to it. A JSON object written without escaping; two sections keep a comma
// before the closing brace.

constexpr size_t config_answer_limit = 9999; // a longer reply is cut there

// The whole reply. An unknown section, and "display" while another display query runs, give the
// fixed part only. Logs the reply. "display" and "zerotier" run commands and wait for them. Any
// thread.
std::string build_config_answer(const char *section);
