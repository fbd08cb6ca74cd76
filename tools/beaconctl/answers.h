#pragma once

#include "beaconctl/link.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

// The daemon's JSON answers.

using Json = nlohmann::ordered_json; // members stay in the daemon's order

// A control command, with its members in order. Bytes that are no UTF-8 become U+FFFD.
std::string command_text(const Json &members);

// An answer of the daemon, mended; nothing when it cannot be read even so.
std::optional<Json> parse_answer(std::string_view text);

// The text of an answer that begins with {"cmd":"NAME"; nothing when the packet is no such answer.
std::optional<std::string> answer_text(const PacketView &packet, std::string_view cmd);

// Asks for a section. Returns an exit code; if it is not exit_ok, a line on standard error has said
// why. The answer comes without its "cmd" member.
int ask_section(Link &link, const std::string &section, Json &answer);

// A member's value for people: a text as it is, a list with commas.
std::string value_text(const Json &value);

// Prints JSON on standard output, in one line.
void print_json(const Json &value);
