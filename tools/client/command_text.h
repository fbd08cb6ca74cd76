#pragma once

// Makes JSON commands.
// Stands on: nothing else of ours.

#include <string>
#include <utility>
#include <vector>

using TextMembers = std::vector<std::pair<std::string, std::string>>;

// A JSON object of strings, in the given order. Bytes that are no UTF-8 become U+FFFD.
std::string command_text(const TextMembers &members);
