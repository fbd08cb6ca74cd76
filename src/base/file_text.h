#pragma once

// Reads the small files in which the kernel and other programs publish values.
// Stands on: nothing else of ours.

#include <cstddef>
#include <string>

// The device tree file that holds the board model.
constexpr const char *board_model_file = "/sys/firmware/devicetree/base/model";

// Returns the file's contents up to the first zero byte, at most `limit` bytes; empty when there is
// no such file. One read() call that never blocks. Any thread.
std::string file_text(const char *path, size_t limit);
