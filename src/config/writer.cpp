#include "config/writer.h"

#include "base/pause.h"
#include "base/shell.h"
#include "config/config_keys.h"

#include <atomic>
#include <cstdio>
#include <cstring>

constexpr const char *boot_file = "/boot/quillorbeacon.conf";
constexpr const char *run_time_file = "/run/quillorbeacon/config.conf";
constexpr const char *file_heading = "# Quillorbeacon NG config file\r\n\r\n";
constexpr uint32_t busy_poll_us = 100000;
constexpr size_t typical_file_size = 40000;
constexpr size_t command_size = 256;

// The configuration busy flag: true while a save runs.
static std::atomic<bool> busy;

// Appends lines that end in "\n", ending them in CRLF.
static void append_lines(std::string &text, const char *lines) {
    for (const char *p = lines; *p != '\0'; ++p) {
        if (*p == '\n') {
            text += '\r';
        }
        text += *p;
    }
}

static std::string value_text(const ConfigRecord &record, const ConfigKey &row) {
    switch (row.kind) {
    case SettingKind::number:
        return std::to_string(record.*row.number);
    case SettingKind::byte:
    case SettingKind::flag:
        return std::to_string(record.*row.byte);
    case SettingKind::text:
        break;
    }
    const char *quote = row.quotes_written ? "\"" : "";
    return std::string(quote) + text_field(record, row) + quote;
}

std::string config_file_text(const ConfigRecord &record) {
    std::string text = file_heading;
    text.reserve(typical_file_size);
    for (const ConfigKey &row : config_keys) {
        append_lines(text, row.heading);
        text += row.key;
        text += '=';
        text += value_text(record, row);
        text += "\r\n\r\n";
    }
    return text;
}

static void claim_busy_flag() {
    while (busy.exchange(true)) {
        fputs("Config busy, waiting...\n", stderr);
        sleep_us(busy_poll_us);
    }
}

// Writes the text and closes the file; false when not all of it could be written.
static bool write_boot_file(FILE *file, const std::string &text) {
    const bool is_whole = fwrite(text.data(), 1, text.size(), file) == text.size();
    return fclose(file) == 0 && is_whole;
}

static void make_run_time_copy() {
    char command[command_size];
    snprintf(command, sizeof command, "cat %s | sed 's/\r$//' > %s", boot_file, run_time_file);
    run_shell(command);
}

// A boot file that could not be written whole is not copied: the run-time copy of before then keeps
// the settings through a restart, and the next save writes them all again.
static void write_files(const std::string &text) {
    run_shell("mount -o rw,remount /boot");
    FILE *file = fopen(boot_file, "we");
    if (file == nullptr) {
        return;
    }
    const bool is_whole = write_boot_file(file, text);
    run_shell("umount /boot");
    run_shell("mount /boot");
    if (is_whole) {
        make_run_time_copy();
    } else {
        fprintf(stderr, "Config file %s could not be written\n", boot_file);
    }
}

void save_config() {
    claim_busy_flag();
    fputs("Saving config\n", stderr);
    const std::string text = config_file_text(config_record());
    write_files(text);
    busy.store(false);
}
