#include "config/loader.h"

#include "base/text.h"
#include "config/config_keys.h"

#include <cstring>
#include <ini.h>
#include <string>

// The longest line that is read whole, with its line end and a zero.
constexpr int line_buffer_size = 10000;

static void store_text(ConfigRecord &target, const ConfigKey &row, const char *value,
                       bool removes_quotes) {
    char *field = text_field(target, row);
    copy_text(field, row.text_size, value);
    if (removes_quotes) {
        remove_double_quotes(field);
    }
    if (field[0] == '\0' && row.when_empty != nullptr) {
        copy_text(field, row.text_size, row.when_empty);
    }
}

static void store_number(ConfigRecord &target, const ConfigKey &row, int32_t number) {
    switch (row.kind) {
    case SettingKind::number:
        target.*row.number = number;
        break;
    case SettingKind::byte:
        target.*row.byte = static_cast<uint8_t>(number);
        break;
    case SettingKind::flag:
        target.*row.byte = number != 0 ? 1 : 0;
        break;
    case SettingKind::text:
        break;
    }
}

int load_setting(ConfigRecord &target, const char *key, const char *value) {
    const ConfigKey *row = find_config_key(key);
    if (row == nullptr) {
        return 0;
    }
    if (row->kind == SettingKind::text) {
        store_text(target, *row, value, row->quotes_removed);
    } else {
        store_number(target, *row, parse_number(value));
    }
    if (row->on_loaded != nullptr) {
        row->on_loaded(target);
    }
    return 1;
}

void change_setting(ConfigRecord &target, const char *key, const char *value) {
    const ConfigKey *row = find_config_key(key);
    if (row == nullptr) {
        return;
    }
    if (row->kind != SettingKind::text) {
        store_number(target, *row, parse_number(value));
        return;
    }
    // A line end would let the value smuggle another key into the file.
    const std::string line(value, strcspn(value, "\r\n"));
    store_text(target, *row, line.c_str(), false);
}

// Keys count only before the first section header.
static int handle_key(void *user, const char *section, const char *key, const char *value) {
    if (section[0] != '\0') {
        return 0;
    }
    return load_setting(*static_cast<ConfigRecord *>(user), key, value);
}

// Debian's inih takes these from global variables; its own line buffer would be 200 bytes. Every
// line stands for itself: one that begins with a blank does not continue the line before.
static void set_up_parser() {
    static char start_comments[] = ";#";
    static char inline_comments[] = ";";
    ini_use_stack = false;
    ini_max_line = line_buffer_size;
    ini_initial_alloc = line_buffer_size;
    ini_allow_realloc = false;
    ini_allow_multiline = false;
    ini_allow_bom = true;
    ini_start_comment_prefixes = start_comments;
    ini_allow_inline_comments = true;
    ini_inline_comment_prefixes = inline_comments;
    ini_allow_no_value = false;
    ini_stop_on_first_error = false;
}

int load_config(const char *path) {
    set_up_parser();
    ConfigRecord &record = config_record();
    std::memset(static_cast<void *>(&record), 0, sizeof record);
    // Positive: the first bad line, which is not fatal. Negative: no file, or no memory.
    return ini_parse(path, handle_key, &record) >= 0 ? 0 : -1;
}
