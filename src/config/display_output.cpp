#include "config/display_output.h"

#include "base/pause.h"
#include "base/shell.h"
#include "config/boot_turn.h"
#include "core/process_control.h"

#include <cstdio>
#include <cstring>
#include <string>

constexpr size_t command_size = 100;
constexpr size_t output_limit = 9999;
constexpr uint32_t hdmi_settle_us = 500000;
constexpr const char *remount_boot = "mount -o rw,remount /boot > /dev/null 2>&1";

// Uncomments a key of the boot firmware configuration, or comments it out. Both delete its value.
static void uncomment(const char *key) {
    char command[command_size];
    snprintf(command, sizeof command, "sed -i 's,^\\('#%s'=\\).*,'%s=',' /boot/config.txt", key,
             key);
    run_shell(command);
}

static void comment_out(const char *key) {
    char command[command_size];
    snprintf(command, sizeof command, "sed -i 's,^\\('%s'=\\).*,'#%s=',' /boot/config.txt", key,
             key);
    run_shell(command);
}

// Sets the value of a key that is not commented out. `value` is already quoted for the shell.
static void set_value(const char *key, const char *value) {
    char command[256];
    snprintf(command, sizeof command, "sed -i 's,^\\('%s'=\\).*,\\1'%s',' /boot/config.txt", key,
             value);
    run_shell(command);
}

static void set_number(const char *key, int number) {
    set_value(key, std::to_string(number).c_str());
}

// Turns a client's text into the replacement of a sed command, between two quoted parts of that
// command: first escapes what sed would interpret, then what the shell would.
static std::string replacement_word(const char *value) {
    std::string escaped;
    for (const char *p = value; *p != '\0' && *p != '\n' && *p != '\r'; ++p) {
        if (strchr(",\\&", *p) != nullptr) {
            escaped += '\\';
        }
        escaped += *p;
    }
    return shell_word(escaped.c_str());
}

static bool equals(const char *text, const char *other) {
    return strcmp(text, other) == 0;
}

// 0 for an unknown standard.
static int composite_mode(const char *standard, const char *progressive) {
    if (equals(progressive, "P")) {
        return equals(standard, "PAL") ? 18 : equals(standard, "NTSC") ? 16 : 0;
    }
    return equals(standard, "PAL") && progressive[0] == '\0' ? 2 : 0;
}

static int composite_aspect(const char *aspect) {
    return equals(aspect, "16:9") ? 3 : equals(aspect, "14:9") ? 2 : equals(aspect, "4:3") ? 1 : 0;
}

static std::string current_output() {
    return shell_output("tvservice -s", output_limit);
}

static bool contains(const std::string &text, const char *part) {
    return text.find(part) != std::string::npos;
}

static void restart_display_processes() {
    kill_process_by_name("display");
    kill_process_by_name("osd");
    stop_tft_display_processes();
}

static void save_composite_output(int mode, int aspect) {
    uncomment("sdtv_mode");
    uncomment("sdtv_aspect");
    set_number("sdtv_mode", mode);
    set_number("sdtv_aspect", aspect);
    uncomment("hdmi_ignore_hotplug");
    set_number("hdmi_ignore_hotplug", 1);
    comment_out("hdmi_force_hotplug");
    set_number("enable_tvout", 1);
}

void switch_composite_output(const char *standard, const char *aspect, const char *progressive,
                             bool save) {
    char command[command_size];
    snprintf(command, sizeof command, "tvservice -c \"%s %s %s\"",
             shell_quoted_text(standard).c_str(), shell_quoted_text(aspect).c_str(),
             shell_quoted_text(progressive).c_str());
    run_shell(command);
    if (!save) {
        return;
    }
    take_boot_turn();
    run_shell(remount_boot);
    const int new_mode = composite_mode(standard, progressive);
    fprintf(stderr, "new_sdtv_mode=%d\n", new_mode);
    const int new_aspect = composite_aspect(aspect);
    fprintf(stderr, "new_sdtv_aspect=%d\n", new_aspect);
    save_composite_output(new_mode, new_aspect);
    run_shell("sync");
    run_shell("umount /boot  > /dev/null 2>&1 ; mount /boot > /dev/null 2>&1");
    end_boot_turn();
    // Composite output replaces HDMI only after a reboot.
    if (contains(current_output(), "HDMI")) {
        reboot_between_turns();
    }
    restart_display_processes();
}

static void select_hdmi_mode(const char *group, const char *mode, bool is_preferred) {
    if (is_preferred) {
        run_shell("tvservice -p");
        return;
    }
    char command[command_size];
    snprintf(command, sizeof command, "tvservice -e \"%s %s\"", shell_quoted_text(group).c_str(),
             shell_quoted_text(mode).c_str());
    run_shell(command);
}

static void save_hdmi_mode(const char *group, const char *mode) {
    uncomment("hdmi_group");
    uncomment("hdmi_mode");
    set_value("hdmi_mode", replacement_word(mode).c_str());
    set_number("hdmi_group", equals(group, "DMT") ? 2 : equals(group, "CEA") ? 1 : 0);
}

static void save_hdmi_output(const char *group, const char *mode, bool is_preferred) {
    take_boot_turn();
    run_shell(remount_boot);
    comment_out("hdmi_ignore_hotplug");
    uncomment("hdmi_force_hotplug");
    set_number("hdmi_force_hotplug", 1);
    set_number("enable_tvout", 0);
    if (is_preferred) {
        comment_out("hdmi_group");
        comment_out("hdmi_mode");
    } else {
        save_hdmi_mode(group, mode);
    }
    run_shell("sync");
    run_shell("umount /boot > /dev/null 2>&1 ; mount /boot > /dev/null 2>&1");
    end_boot_turn();
    const std::string output = current_output();
    if (contains(output, "PAL") || contains(output, "NTSC")) {
        reboot_between_turns();
    }
}

void switch_hdmi_output(const char *group, const char *mode, bool save) {
    const bool is_preferred = group[0] == '\0' && mode[0] == '\0';
    select_hdmi_mode(group, mode, is_preferred);
    if (save) {
        save_hdmi_output(group, mode, is_preferred);
    }
    sleep_us(hdmi_settle_us);
    restart_display_processes();
}
