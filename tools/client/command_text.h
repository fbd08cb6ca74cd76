#pragma once

#include <string>
#include <utility>
#include <vector>

using TextMembers = std::vector<std::pair<std::string, std::string>>;

// A control command: a JSON object of texts, in their order. Bytes that are no UTF-8 become U+FFFD.
std::string command_text(const TextMembers &members);
