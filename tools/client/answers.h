#pragma once

#include "client/packet.h"

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

// The daemon's JSON answers. Who looks into one includes <nlohmann/json.hpp>.

using Json = nlohmann::ordered_json; // members stay in the daemon's order

// An answer of the daemon, mended; nothing when it cannot be read even so.
std::optional<Json> parse_answer(std::string_view text);

// The text of an answer that begins with {"cmd":"NAME"; nothing when the packet is no such answer.
std::optional<std::string> answer_text(const PacketView &packet, std::string_view cmd);

// A member's value for people: a text as it is, a list with commas.
std::string value_text(const Json &value);

// JSON for scripts, in one line.
std::string json_text(const Json &value);
