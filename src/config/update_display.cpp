#include "config/update_display.h"

#include "base/json_command.h"
#include "base/shell.h"
#include "config/config.h"
#include "config/display_output.h"
#include "config/writer.h"
#include "core/process_control.h"
#include "net/display_process.h"

void then_display_enabled(const cJSON * /*command*/) {
    save_config();
    kill_process_by_name("display");
    kill_process_by_name("osd");
}

static void notify_and_save(bool is_on, const char *on, const char *off) {
    notify_display_process(is_on ? on : off);
    save_config();
}

void then_display_hflip(const cJSON * /*command*/) {
    notify_and_save(config_record().display_hflip != 0, "hflip_on", "hflip_off");
}

void then_display_vflip(const cJSON * /*command*/) {
    notify_and_save(config_record().display_vflip != 0, "vflip_on", "vflip_off");
}

void then_display_aspect(const cJSON * /*command*/) {
    notify_and_save(config_record().display_keep_aspect != 0, "aspect_on", "aspect_off");
}

void then_display_smooth(const cJSON * /*command*/) {
    notify_and_save(config_record().display_smooth != 0, "smooth_on", "smooth_off");
}

void then_dual_hdmi(const cJSON * /*command*/) {
    save_config();
    run_shell("killall -q display");
}

void then_tft(const cJSON * /*command*/) {
    save_config();
    stop_tft_display_processes();
}

void then_cvbs_test(const cJSON *command) {
    switch_composite_output(member_or_empty(command, "value2"), member_or_empty(command, "value3"),
                            member_or_empty(command, "value4"), false);
}

void then_cvbs_test_and_save(const cJSON *command) {
    switch_composite_output(member_or_empty(command, "value2"), member_or_empty(command, "value3"),
                            member_or_empty(command, "value4"), true);
}

void then_hdmi_test(const cJSON *command) {
    switch_hdmi_output(member_or_empty(command, "value2"), member_or_empty(command, "value3"),
                       false);
}

void then_hdmi_test_and_save(const cJSON *command) {
    switch_hdmi_output(member_or_empty(command, "value2"), member_or_empty(command, "value3"),
                       true);
}
