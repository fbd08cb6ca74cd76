#pragma once

#include <cstdint>

// Decimal megabytes free for unprivileged users on the file system of `path`, cut to whole ones; 0
// where there is none.
uint32_t free_megabytes(const char *path);
