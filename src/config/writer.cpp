#include "config/writer.h"

#include "base/file_text.h"
#include "base/shell.h"
#include "base/whole_file.h"
#include "config/boot_turn.h"
#include "config/config_keys.h"
#include "config/kept_copy.h"

#include <cerrno>
#include <cstdio>
#include <string>
#include <unistd.h>

constexpr const char *boot_file = "/boot/quillorbeacon.conf";
constexpr const char *run_time_file = "/run/quillorbeacon/config.conf";
constexpr const char *file_heading = "# Quillorbeacon NG config file\r\n\r\n";
constexpr size_t typical_file_size = 40000;
constexpr size_t command_size = 256;
constexpr size_t size_limit = 1000000; // of the run-time copy, when it is checked

// Must a copy of the boot file be kept before it is replaced? Set by start-up; then it belongs to
// the thread that has the turn.
static bool keeps_boot_file;

// Appends lines, and turns their "\n" into CRLF.
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

// The text for the run-time copy: without the carriage returns at line ends.
static std::string run_time_text(const std::string &text) {
    std::string copy;
    copy.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text.compare(i, 2, "\r\n") != 0) {
            copy += text[i];
        }
    }
    return copy;
}

// Does a configuration file have its last line, including the line end?
static bool holds_last_key(const std::string &text) {
    const std::string last_key = std::string("\n") + config_keys[config_key_count - 1].key + "=";
    const size_t at = text.rfind(last_key);
    return at != std::string::npos && text.find('\n', at + 1) != std::string::npos;
}

static void tell_failure(const char *file, int error) {
    fprintf(stderr, "Config file %s could not be written: %s\n", file,
            replacement_error_text(error));
}

static void run_copy_command() {
    char command[command_size];
    snprintf(command, sizeof command, "cat %s | sed 's/\r$//' > %s", boot_file, run_time_file);
    run_shell(command);
}

// If there is no space for a second copy, empties the first one when the command left it
// incomplete: the next start-up notices missing settings, but not a part of them.
static int replace_run_time_copy(const std::string &copy) {
    const int error = replace_file(run_time_file, copy);
    if (error != ENOSPC || holds_last_key(file_text(run_time_file, size_limit)) ||
        truncate(run_time_file, 0) != 0) {
        return error;
    }
    const int second_error = replace_file(run_time_file, copy);
    if (second_error != 0) {
        unlink(run_time_file);
    }
    return second_error;
}

// Writes the run-time copy if the command did not make it, or not all of it.
static void mend_run_time_copy(const std::string &copy) {
    if (file_text(run_time_file, copy.size() + 1) == copy) {
        return;
    }
    const int error = replace_run_time_copy(copy);
    if (error != 0) {
        tell_failure(run_time_file, error);
    }
}

static int replace_boot_file(FileReplacement &boot, const std::string &text) {
    const int error = keeps_boot_file ? keep_copy(boot) : 0;
    if (error != 0) {
        give_up_replacement(boot);
        return error;
    }
    keeps_boot_file = keeps_boot_file && boot.old_file < 0;
    return finish_replacement(boot, text);
}

// Returns false when /boot has another file afterwards than the one that was written: the partition
// was mounted over it only now, or has gone.
//
// If the boot file could not be written, it is not copied: it has the previous settings. The
// run-time copy gets the new ones all the same, so that they survive a restart of the daemon.
static bool write_files(const std::string &text) {
    run_shell("mount -o rw,remount /boot");
    FileReplacement boot;
    int error = begin_replacement(boot, boot_file);
    if (error == error_no_regular_file) {
        tell_failure(boot_file, error);
    }
    if (error != 0) {
        return true;
    }
    error = replace_boot_file(boot, text);
    run_shell("umount /boot");
    run_shell("mount /boot");
    const bool is_there = error != 0 || file_text(boot_file, text.size() + 1) == text;
    if (error != 0) {
        tell_failure(boot_file, error);
    } else if (!is_fifo_or_device(run_time_file)) {
        run_copy_command();
    }
    // A file that the partition did not show before is still to be kept.
    keeps_boot_file = keeps_boot_file && (error != 0 || !is_there);
    if (!keeps_boot_file) {
        mend_run_time_copy(run_time_text(text));
    }
    return is_there;
}

void keep_boot_file_before_first_save() {
    keeps_boot_file = true;
}

void save_config() {
    take_boot_turn();
    fputs("Saving config\n", stderr);
    const std::string text = config_file_text(config_record());
    if (!write_files(text) && !keeps_boot_file) {
        fprintf(stderr, "Config file %s is not the one that was written, saving again\n",
                boot_file);
        write_files(text);
    }
    end_boot_turn();
}
