#pragma once

// Replaces files whole or not at all, even when the process is killed or the power fails.
// Stands on: nothing else of ours.

// The new file is written next to the old one as NAME.new, flushed to disk and renamed to NAME. It
// gets the old file's owner and mode. Readers, and the disk after a power failure, have either the
// old file or the new one. There must be space for both.

#include <string>
#include <string_view>

// A replacement in progress.
struct FileReplacement {
    std::string path;  // with symbolic links resolved
    int old_file = -1; // the existing file, open for reading and writing; -1: none
    int new_file = -1; // the new file; -1: not created yet
    int model = -1;    // an open file whose owner and mode the new one gets; -1: the defaults
};

// What begin_replacement returns for a FIFO or a device, which it never opens.
constexpr int error_no_regular_file = -1;

// Is `path` a FIFO, a device or a socket? Opening one could block or have side effects.
bool is_fifo_or_device(const char *path);

// Checks that the file at `path` can be written, without changing it; if there is none, creates the
// new file at once. Returns 0, or why the file cannot be opened: an errno or the error above. Any
// thread; the caller makes sure that nobody else replaces the same file at the same time.
int begin_replacement(FileReplacement &replacement, const char *path);

// Replaces the file with `content`. Returns 0 or an errno. After an error the old file is still
// there, unless the last flush failed. Ends the replacement in either case.
int finish_replacement(FileReplacement &replacement, std::string_view content);

// Ends the replacement and keeps the old file.
void give_up_replacement(FileReplacement &replacement);

// begin_replacement and finish_replacement in one call.
int replace_file(const char *path, std::string_view content);

// The message for an error returned by these functions.
const char *replacement_error_text(int error);
