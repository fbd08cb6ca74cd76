#include "config/update_recording.h"

#include "base/shell.h"
#include "config/config.h"
#include "config/writer.h"
#include "core/gpio.h"
#include "core/process_control.h"

constexpr const char *recorder_marker_on = "touch /run/quillorbeacon/recorder-enabled";
constexpr const char *recorder_marker_off = "rm -f /run/quillorbeacon/recorder-enabled";

void then_recording(const cJSON * /*command*/) {
    use_inputs(config_record());
    save_config();
    run_shell(recorder_marker_off);
    signal_recorder();
    stop_camera_processes();
}

void then_rec(const cJSON * /*command*/) {
    signal_recorder();
    if (config_record().recording_enabled == 0) {
        run_shell(recorder_marker_off);
        return;
    }
    run_shell(recorder_marker_on);
    stop_camera_processes();
}

void then_internal_camera(const cJSON * /*command*/) {
    save_config();
    kill_process_by_name("raspivid");
}
