#pragma once

// Reads the daemon's JSON answers.
// Stands on: client/mend, client/packet, net/relay_packet.

#include "client/packet.h"

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

// To look into an answer, include <nlohmann/json.hpp>.
using Json = nlohmann::ordered_json; // keeps the members in the daemon's order

// The answer, repaired as client/mend.h says. Nothing when it still is no JSON object.
std::optional<Json> parse_answer(std::string_view text);

// The text of an answer that begins with {"cmd":"NAME", where NAME is `cmd`. Nothing when the
// packet is no such answer.
std::optional<std::string> answer_text(const PacketView &packet, std::string_view cmd);

// A member's value as text, for people and for commands: a string without quotes, a list with
// commas, anything else as JSON. An empty list is "(none)".
std::string value_text(const Json &value);

// JSON in one line; bytes that are no UTF-8 become U+FFFD.
std::string json_text(const Json &value);
