#pragma once

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

// One key of the configuration file. Of the three ways to the field the kind tells which is set.
struct ConfigKey {
    const char *key;
    SettingKind kind;
    Relaxed<int32_t> ConfigRecord::*number;
    Relaxed<uint8_t> ConfigRecord::*byte;
    size_t text_offset; // of the field in the record
    size_t text_size;   // of the field, in bytes
    bool removes_quotes;
    const char *when_empty;            // what an empty text stands for; null: itself
    void (*on_stored)(ConfigRecord &); // called after the field has been stored; may be null
};

constexpr size_t config_key_count = 81;

// All keys, in the order of the file.
extern const ConfigKey config_keys[config_key_count];
