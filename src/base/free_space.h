#pragma once

// Free space on a file system, in megabytes.
// Stands on: nothing else of ours.

#include <cstdint>
#include <sys/statvfs.h>

// Decimal megabytes available to unprivileged users, rounded down.
uint32_t megabytes_of(const struct statvfs &status);

// The same for the file system that holds `path`; 0 on an error. Any thread.
uint32_t free_megabytes(const char *path);
