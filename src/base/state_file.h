#pragma once

// Writes the small files in which the daemon publishes its state.
// Stands on: base/relaxed, base/whole_file.

#include "base/relaxed.h"

#include <string_view>

// Such a file.
struct StateFile {
    const char *path;
    Relaxed<bool> is_refused{false}; // it is a FIFO or a device, and that was told
};

// Replaces the file's content in place, so that readers may see it empty for a moment; creates a
// missing file. What cannot be opened is left alone without a word. So is a FIFO, a device or a
// socket, which is not even opened, because that could block: one line tells it. Any thread.
void write_state_file(StateFile &file, std::string_view content);
