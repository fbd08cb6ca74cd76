#pragma once

#include <cstdint>
#include <sys/statvfs.h>

// Decimal megabytes free for unprivileged users on a file system, cut to whole ones.
uint32_t megabytes_of(const struct statvfs &status);

// The same of the file system of `path`; 0 where there is none.
uint32_t free_megabytes(const char *path);
