#pragma once

// The values that each setting may have, with a line of help: what forms and checks are made from.
// Stands on: nothing else of ours.

#include <span>
#include <string>
#include <string_view>

// A limit belongs to the field of that key in client/setting_rows.h; client/value_check.h compares
// values with it. The daemon itself takes anything. The functions may be called by any thread.

enum class ValueKind {
    flag,       // 0 or 1
    number,     // decimal, from `least` to `most`
    choice,     // one of the values in `choices`
    text,       // from `least` to `most` bytes, or empty
    word,       // the same, of letters, digits and "_.-" only; `choices` are examples
    url,        // a text that begins with `scheme`, or empty
    address,    // an IPv4 address, or empty
    mask,       // an IPv4 network mask, or empty
    country,    // two letters, or empty
    channel,    // of Wi-Fi, or 0
    network_id, // 16 hexadecimal digits, or empty
    receivers,  // up to ten "ADDRESS:PORT", separated by commas
    movements,  // a list of up to twenty movements, as docs/settings.md describes it
};

struct SettingChoice {
    const char *value; // what is sent and stored
    const char *name;  // a word that people may type for it
    const char *label; // what to show beside it
};

struct SettingLimit {
    const char *key;
    ValueKind kind;
    const char *help; // a line without a full stop
    long least = 0;
    long most = 0;
    std::span<const SettingChoice> choices{};
    const char *scheme = ""; // "rtmp": rtmp:// or rtmps://
    bool is_secret = false;  // a pass phrase or a key
};

// May a url begin with rtmps:// too?
bool allows_rtmps(const SettingLimit &limit);

std::span<const SettingLimit> setting_limits();

// Null if there is no such key.
const SettingLimit *setting_limit(std::string_view key);

// The allowed values in words: "a number from 1 to 5", "0 (auto), 1 (internal) or 2 (external)".
std::string allowed_values(const SettingLimit &limit);
