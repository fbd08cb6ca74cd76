#include "core/startup.h"

#include "automove/movement_list.h"
#include "automove/movement_runner.h"
#include "base/error_stream.h"
#include "base/file_text.h"
#include "base/own_ports.h"
#include "base/process_end.h"
#include "base/shell.h"
#include "base/text.h"
#include "base/version.h"
#include "config/boot_turn.h"
#include "config/config.h"
#include "config/loader.h"
#include "config/restream_clients.h"
#include "config/wired_address.h"
#include "config/writer.h"
#include "core/gpio.h"
#include "core/storage.h"
#include "media/audio_source.h"
#include "media/data_source.h"
#include "media/internal_camera.h"
#include "media/video_source.h"
#include "net/control_server.h"
#include "net/dispatcher.h"
#include "net/display_process.h"
#include "net/tcp_server.h"
#include "rc/rc_block.h"
#include "rc/rc_loop.h"
#include "transfer/file_download.h"

#include <cstdio>
#include <string>
#include <unistd.h>

#ifdef HAVE_BCM_HOST
#include <bcm_host.h>
#endif

constexpr uint16_t internal_camera_port = 5002;
constexpr const char *config_file = "/run/quillorbeacon/config.conf";
constexpr const char *gpio_pid_file = "/var/run/pigpio.pid";
constexpr const char *default_camera_params =
    "-w 1280 -h 720 -fps 48 --bitrate 2000000 --preview 100,100,320,200";
constexpr size_t model_size = 100;

[[noreturn]] static void fail_start(const char *line) {
    fputs(line, stderr);
    end_process(exit_status_failure);
}

static void load_settings() {
    fputs("Loading config file... ", stderr);
    if (load_config(config_file) == 0) {
        fputs("done\n", stderr);
        report_restreaming(config_record());
        return;
    }
    fputs("failed\n", stderr);
    keep_boot_file_before_first_save();
}

static void detect_board(ConfigRecord &config) {
    const std::string model = file_text(board_model_file, model_size);
    fprintf(stderr, "Board model: %s\n", model.c_str());
    config.slow_cpu = model.find("Zero") != std::string::npos ? 1 : 0;
    if (config.slow_cpu != 0) {
        fputs("SLOW CPU!\n", stderr);
    }
}

static void set_up_wired_network(const ConfigRecord &config) {
    if (config.eth_static_ip_enabled != 0) {
        run_shell("dhcpcd --release eth0");
        set_static_address(config);
        run_shell("ip route add dev eth0 default");
        return;
    }
    run_shell("ip route delete default");
    run_shell("dhcpcd --rebind eth0");
}

static void set_default_camera_params(ConfigRecord &config) {
    if (config.internal_camera_params[0] == '\0') {
        copy_text(config.internal_camera_params, sizeof config.internal_camera_params,
                  default_camera_params);
    }
}

static void start_video_core() {
#ifdef HAVE_BCM_HOST
    static bool initialised;
    if (!initialised) {
        bcm_host_init();
        initialised = true;
    }
#endif
}

static int start_control() {
    return init_control_server(control_port, client_turn, dispatch_client_packet);
}

static int start_tcp() {
    return init_tcp_server(control_port);
}

static int start_video() {
    return init_video_source(video_port);
}

static int start_audio() {
    return init_audio_source(audio_port);
}

static int start_internal_camera() {
    return init_internal_camera(internal_camera_port);
}

static int start_data() {
    return init_data_source(data_port, dispatch_source_command);
}

// A server, with the lines printed before and after its start and on failure.
struct ServerStep {
    const char *before;
    int (*start)();
    const char *failed;
    const char *after;
    bool on_slow_boards;
};

// Started in this order.
constexpr ServerStep server_steps[] = {
    {"Init UDP server\n", start_control, "UDP server init failed\n", "Init UDP done\n", true},
    {"Init TCP server\n", start_tcp, "TCP server init failed\n", "Init TCP done\n", true},
    {"Init video source server\n", start_video, "Video source server init failed\n",
     "Video source server init done\n", false},
    {"Init audio source server\n", start_audio, "Audio source server init failed\n",
     "Audio source server init done\n", false},
    {"Init data source server\n", start_data, "Data source server init failed\n",
     "Data source server init done\n", true},
    {"Init internal camera source server\n", start_internal_camera,
     "Internal camera source server init failed\n", "Init internal camera source server done\n",
     false},
    {"Init file transfer\n", init_file_download, "File transfer init failed\n",
     "File transfer init done\n", true},
};

static void start_server(const ServerStep &step) {
    fputs(step.before, stderr);
    if (step.start() != 0) {
        fail_start(step.failed);
    }
    fputs(step.after, stderr);
}

static void start_rc(const ConfigRecord &config) {
    if (config.slow_cpu != 0) {
        return;
    }
    if (init_rc() != 0) {
        fail_start("RC init failed\n");
    }
    load_rc_channels(rc_block(), 0, config.rc1_channels);
    load_rc_channels(rc_block(), 1, config.rc2_channels);
}

static void start_automove(const ConfigRecord &config) {
    if (init_automove() != 0) {
        fail_start("Auto movement init failed\n");
    }
    set_movement_list(config.automove_list);
    set_automove_state(config.automove_enabled);
}

static void start_storage(const ConfigRecord &config) {
    if (config.slow_cpu == 0 && init_storage() != 0) {
        fputs("Storage init failed\n", stderr);
        end_process(exit_status_failure);
    }
}

void start_up() {
    fill_standard_descriptors();
    use_patient_error_stream();
    prepare_process_end(end_boot_turns);
    run_shell("mkdir -p /run/quillorbeacon");
    fprintf(stderr, "Quillorbeacon-NG v.%d.%d.%d\n", program_version[0], program_version[1],
            program_version[2]);
    load_settings();
    ConfigRecord &config = config_record();
    detect_board(config);
    set_up_wired_network(config);
    set_default_camera_params(config);
    start_video_core();
    start_rc(config);
    init_display_notifications();
    for (const ServerStep &step : server_steps) {
        if (config.slow_cpu == 0 || step.on_slow_boards) {
            start_server(step);
        }
    }
    start_automove(config);
    unlink(gpio_pid_file);
    start_gpio();
    use_inputs(config);
    start_storage(config);
}
