#pragma once

#include <cstddef>
#include <string>

// The kernel's file with the model of the board.
constexpr const char *board_model_file = "/sys/firmware/devicetree/base/model";

// What a file holds, at most `limit` bytes, up to the first zero; empty without the file. One read,
// which never waits: meant for the small files through which programs and the kernel tell things.
// Any thread.
std::string file_text(const char *path, size_t limit);
