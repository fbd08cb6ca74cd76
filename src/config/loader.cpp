#include "config/loader.h"

#include "base/text.h"
#include "config/config_keys.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <ini.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

// Room for one line with its line end and the terminating zero; a longer line is not read whole.
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
    // A line end in the value could smuggle another key into the file.
    const std::string line(value, strcspn(value, "\r\n"));
    store_text(target, *row, line.c_str(), false);
}

// Keys after the first section header are ignored.
static int handle_key(void *user, const char *section, const char *key, const char *value) {
    if (section[0] != '\0') {
        return 0;
    }
    return load_setting(*static_cast<ConfigRecord *>(user), key, value);
}

// Debian's inih takes these options from global variables; its default line buffer has 200 bytes.
// Multi-line values are off: a line that begins with a blank does not continue the one before.
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

// Returns null for what is no file, and never waits for the other end of a FIFO.
static FILE *open_regular_file(const char *path) {
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat status {};
    const bool is_file = fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    FILE *file = is_file ? fdopen(fd, "r") : nullptr;
    if (fd >= 0 && file == nullptr) {
        close(fd);
    }
    return file;
}

int load_config(const char *path) {
    set_up_parser();
    ConfigRecord &record = config_record();
    std::memset(static_cast<void *>(&record), 0, sizeof record);
    // Positive: the number of the first bad line, which is not fatal. Negative: no file or no
    // memory.
    FILE *file = open_regular_file(path);
    const int result = file == nullptr ? -1 : ini_parse_file(file, handle_key, &record);
    if (file != nullptr) {
        fclose(file);
    }
    return result >= 0 ? 0 : -1;
}
