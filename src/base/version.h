#pragma once

// The program's version.
// Stands on: nothing else of ours.

#include <cstdint>

// As clients see it: major, minor, patch. CMakeLists.txt has the same one.
constexpr uint8_t program_version[3] = {0, 8, 19};
