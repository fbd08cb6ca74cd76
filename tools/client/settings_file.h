#pragma once

// Reads a settings file as the daemon does, and says what it would not read as it was meant.
// Stands on: client/setting_limits, client/value_check.

#include <span>
#include <string>
#include <string_view>
#include <vector>

// How a key is stored. docs/settings.md has the same in words.
enum class StoredKind { number, byte, flag, text };
struct StoredKey {
    const char *key;
    StoredKind kind;
    size_t size = 0;             // of a text: the bytes that are read
    bool quotes_removed = false; // from a text, after it was cut to its size
};
std::span<const StoredKey> stored_keys(); // all keys, in the order of the file

struct FileRemark {
    size_t line; // from 1; 0: the file as a whole
    std::string text;
    std::string unknown_key; // if the remark is about one
};

// What a person has to know about the file, line by line. Empty: it is read as it stands.
std::vector<FileRemark> check_settings_file(std::string_view text);
