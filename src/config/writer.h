#pragma once

// Writes the configuration file.
// Stands on: config/boot_turn, config/config, config/config_keys, config/kept_copy.

#include "config/config.h"

#include <string>

// Returns the configuration file for a record, as it is on the boot partition: every key with its
// comments, in the order of config_keys, with CRLF line ends. Nothing is escaped.
std::string config_file_text(const ConfigRecord &record);

// Saves the record. Mounts the boot partition read-write, replaces the file there, flushed to disk,
// and runs a command that makes the run-time copy from it; if the copy is not complete, it is
// written directly. Both files are replaced whole or not at all. If /boot has another file
// afterwards, because the partition was not mounted before, one line says so and the file is saved
// once more. Takes the turn on the boot partition. When the boot file cannot be opened, nothing is
// written and nothing is printed. When it cannot be written, one line says why, the old file stays,
// and only the run-time copy gets the new settings. Any thread.
//
// The text is built on the heap, not on a stack; the largest one has 34 kB.
void save_config();

// Makes the next save keep a copy of the boot file before it replaces it; as long as the copy
// fails, the boot file is not replaced. For a start-up without settings. Start-up only.
void keep_boot_file_before_first_save();
