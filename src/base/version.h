#pragma once

#include <cstdint>

// The program's version, as clients see it: major, minor, patch. CMakeLists.txt has the same one.
constexpr uint8_t program_version[3] = {0, 8, 19};
