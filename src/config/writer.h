#pragma once

#include "config/config.h"

#include <string>

// The whole configuration file of a record, as it stands on the boot partition: every key with its
// comments, in the order of config_keys, lines ending in CRLF. Nothing is escaped.
std::string config_file_text(const ConfigRecord &record);

// Saves the record: writes the file on the boot partition (mounted read-write meanwhile) and makes
// the run-time copy from it. Blocks while another save is running. When the boot file cannot be
// opened, nothing is written; when it cannot be written whole (a full disk), one line says so and
// the run-time copy stays as it was. Any thread.
//
// The text is built on the heap; the largest one has 34 kB, and no stack holds it.
void save_config();
