#pragma once

// The table of all configuration keys: where each is stored, how it is read and written.
// Stands on: config/config, config/restream_clients.

#include "config/config.h"

#include <cstddef>
#include <cstdint>

// How a setting is stored in the record.
enum class SettingKind : uint8_t {
    number, // signed 32 bits
    byte,   // unsigned 8 bits: the low byte of the number
    flag,   // one byte, 1 for any number but 0
    text,   // characters and a terminating zero
};

// One key of the configuration file. `kind` says which is set: `number`, `byte`, or the text offset
// and size.
struct ConfigKey {
    const char *key;
    SettingKind kind;
    Relaxed<int32_t> ConfigRecord::*number;
    Relaxed<uint8_t> ConfigRecord::*byte;
    size_t text_offset;                // of the field in the record
    size_t text_size;                  // of the field, in bytes
    bool quotes_removed;               // on loading, after the text is truncated to its field
    bool quotes_written;               // around the text in the file
    const char *when_empty;            // replaces an empty text; null: it stays empty
    void (*on_loaded)(ConfigRecord &); // called after the loader has stored the field; may be null
    const char *heading;               // the lines above the key in the file, each ending in "\n"
};

constexpr const char *default_static_mask = "255.255.255.0";
constexpr size_t config_key_count = 81;

// All keys, in the order of the file.
extern const ConfigKey config_keys[config_key_count];

// The row of a key; null when there is none. Case matters.
const ConfigKey *find_config_key(const char *key);

// The field of a text key.
inline char *text_field(ConfigRecord &record, const ConfigKey &row) {
    return reinterpret_cast<char *>(&record) + row.text_offset;
}
inline const char *text_field(const ConfigRecord &record, const ConfigKey &row) {
    return reinterpret_cast<const char *>(&record) + row.text_offset;
}
