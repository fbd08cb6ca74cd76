#include "core/process_control.h"

#include "base/shell.h"
#include "base/text.h"

#include <cstdio>
#include <string>

constexpr int kill_signal = 9;
constexpr int recorder_signal = 10; // SIGUSR1
constexpr const char *recorder_name = "recorder";
constexpr const char *stop_cameras_command = "cd ../cams ; ./kill-cams.sh ; cd ..";
constexpr size_t command_size = 256;
constexpr size_t pid_digits = 9;

// The first process id that pidof prints for the name; less than 1 when there is none.
static int32_t find_process(const char *name) {
    char command[command_size];
    snprintf(command, sizeof command, "pidof %s", name);
    const std::string output = shell_output(command, pid_digits);
    return parse_number(output.substr(0, output.find('\n')).c_str());
}

static void send_signal(int signal, int32_t pid) {
    char command[command_size];
    snprintf(command, sizeof command, "kill -%d %d", signal, pid);
    run_shell(command);
}

void kill_process_by_name(const char *name) {
    const int32_t pid = find_process(name);
    if (pid < 1) {
        fprintf(stderr, "can't kill %s (PID not found)\n", name);
        return;
    }
    fprintf(stderr, "kill %s (PID %d)\n", name, pid);
    send_signal(kill_signal, pid);
}

void signal_recorder() {
    const int32_t pid = find_process(recorder_name);
    if (pid < 1) {
        fprintf(stderr, "can't send signal %d to process %s (PID not found)\n", recorder_signal,
                recorder_name);
        return;
    }
    fprintf(stderr, "send signal %d to process %s (PID %d)\n", recorder_signal, recorder_name, pid);
    send_signal(recorder_signal, pid);
}

void stop_tft_display_processes() {
    kill_process_by_name("tft-display-waveshare20");
    kill_process_by_name("tft-display-waveshare35a");
    kill_process_by_name("tft-display-waveshare35b");
}

void stop_camera_processes() {
    run_shell(stop_cameras_command);
}
