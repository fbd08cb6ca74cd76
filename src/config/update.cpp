#include "config/update.h"

#include "base/shell.h"
#include "base/text.h"
#include "config/config.h"
#include "core/process_control.h"

#include <cjson/cJSON.h>
#include <cstdio>
#include <cstring>

constexpr const char *kill_cams_command = "cd ../cams ; ./kill-cams.sh ; cd ..";

// A string member of the command; empty when it is missing.
static const char *member(const cJSON *command, const char *name) {
    const cJSON *item = cJSON_GetObjectItem(command, name);
    return cJSON_IsString(item) != 0 ? item->valuestring : "";
}

// Recording is switched on or off for now; the stored setting is not touched.
static void update_rec(const cJSON *command) {
    ConfigRecord &config = config_record();
    config.recording_enabled = parse_number(member(command, "value"));
    signal_recorder();
    if (config.recording_enabled != 0) {
        run_shell("touch /run/quillorbeacon/recorder-enabled");
        run_shell(kill_cams_command);
    } else {
        run_shell("rm -f /run/quillorbeacon/recorder-enabled");
    }
}

void apply_config_update(const char *text) {
    fprintf(stderr, "config_update: %s\n", text);
    cJSON *command = cJSON_Parse(text);
    if (strcmp(member(command, "param"), "rec") == 0) {
        update_rec(command);
    }
    cJSON_Delete(command);
}
