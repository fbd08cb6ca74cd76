#include "beacon_sim/prepare.h"

#include "source/complain.h"
#include "source/shared_object.h"
#include "source/signals.h"

#include "automove/camera_state_layout.h"
#include "media/frame_ring_layout.h"
#include "rc/rc_block_layout.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <unistd.h>

constexpr size_t longest_script = size_t{1} << 20;
constexpr int wait_interval_ms = 100;

static bool read_script_file(const std::string &path, std::string &text) {
    const std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(path.c_str(), "rbe"), fclose);
    if (file) {
        text.resize(longest_script + 1);
        errno = 0;
        text.resize(fread(text.data(), 1, text.size(), file.get()));
    }
    if (!file || ferror(file.get()) != 0) {
        complain("cannot read %s: %s", path.c_str(), strerror(errno));
        return false;
    }
    if (text.size() > longest_script) {
        complain("%s is too long: a script has at most %zu bytes", path.c_str(), longest_script);
        return false;
    }
    return true;
}

static bool prepare_sticks(Motion &motion, const Options &options) {
    if (options.keys) {
        motion.input = StickInput::keys;
        if (isatty(STDIN_FILENO) == 0) {
            complain("--keys needs a terminal on standard input");
            return false;
        }
    }
    if (options.sticks.empty()) {
        return true;
    }
    motion.input = StickInput::script;
    if (options.sticks == "circle") {
        motion.script = circling_stick();
        return true;
    }
    std::string text;
    if (!read_script_file(options.sticks, text)) {
        return false;
    }
    const std::string error = parse_stick_script(text, motion.script);
    if (!error.empty()) {
        complain("%s: %s", options.sticks.c_str(), error.c_str());
        return false;
    }
    return true;
}

// What the encoder has to do, with the file that it plays.
static bool prepare_encoder(EncoderOrder &order, const Options &options) {
    order = {options.video_file, options.is_once, !options.no_video, false,
             options.width,      options.height,  options.rate,      options.bitrate};
    order.frame_capacity =
        options.ring == "main" ? main_frame_capacity : transcoding_frame_capacity;
    if (options.video_file.empty()) {
        return true;
    }
    FileStreams streams;
    if (!probe_file(options.video_file, streams)) {
        return false;
    }
    if (order.has_video && !streams.has_video) {
        complain("%s has no video", options.video_file.c_str());
        return false;
    }
    order.has_audio = !options.no_audio && streams.has_audio;
    return true;
}

bool prepare_simulation(Simulation &simulation, const Options &options) {
    if (!prepare_sticks(simulation.motion, options) ||
        !prepare_encoder(simulation.order, options) || !check_shared_memory()) {
        return false;
    }
    SourceStreams &streams = simulation.streams;
    streams.has_telemetry = !options.no_telemetry;
    streams.has_audio = !options.no_audio;
    streams.has_video = !options.no_video;
    streams.is_tone = !simulation.order.has_audio;
    simulation.signals = open_signals();
    if (simulation.signals < 0 || !open_streams(streams)) {
        return false;
    }
    if (!options.record.empty()) {
        simulation.has_record = open_record(simulation.record, options.record);
        return simulation.has_record;
    }
    return true;
}

// The daemon's shared memory, as far as it is mapped.
struct Mappings {
    uint8_t *ring = nullptr;
    int ring_fd = -1;
    uint8_t *rc_block = nullptr;
    uint8_t *camera_state = nullptr;
};

static SharedObjectResult map_once(const char *name, size_t size, uint8_t **at, int *fd = nullptr) {
    return *at != nullptr ? SharedObjectResult::mapped : map_shared_object(name, size, at, fd);
}

// Maps what exists. `missing` is what the daemon has not created yet.
static SharedObjectResult map_all(Mappings &mappings, const EncoderOrder &order,
                                  const char *&missing) {
    missing = rc_block_name;
    auto result = map_once(rc_block_name, rc_block_size, &mappings.rc_block);
    if (result == SharedObjectResult::mapped) {
        missing = camera_state_name;
        result = map_once(camera_state_name, camera_state_size, &mappings.camera_state);
    }
    if (result == SharedObjectResult::mapped && order.has_video) {
        const bool is_main = order.frame_capacity == main_frame_capacity;
        missing = is_main ? main_ring_name : transcoding_ring_name;
        result =
            map_once(missing, ring_size(order.frame_capacity), &mappings.ring, &mappings.ring_fd);
        if (result == SharedObjectResult::mapped && mappings.ring[ring_mark0_at] != 1) {
            return SharedObjectResult::absent;
        }
    }
    return result;
}

static void say_what_is_waited_for(SharedObjectResult result, const char *missing) {
    if (result == SharedObjectResult::absent) {
        complain("waiting for the daemon: there is no /dev/shm/%s",
                 missing + (*missing == '/' ? 1 : 0));
    } else {
        complain("waiting for the daemon: nothing listens on 127.0.0.1");
    }
}

bool wait_for_daemon(Simulation &simulation, const Options &options) {
    Mappings mappings;
    const char *missing = nullptr;
    bool has_waited = false;
    for (;;) {
        const SharedObjectResult result = map_all(mappings, simulation.order, missing);
        if (result == SharedObjectResult::failed) {
            return false;
        }
        if (result == SharedObjectResult::mapped && daemon_listens(simulation.streams)) {
            break;
        }
        if (!has_waited) {
            say_what_is_waited_for(result, missing);
            has_waited = true;
        }
        if (wait_for_stop(simulation.signals, wait_interval_ms)) {
            complain("stopped while waiting for the daemon");
            return false;
        }
    }
    if (has_waited) {
        complain("the daemon is running");
    }
    simulation.motion.rc_block = mappings.rc_block;
    simulation.motion.camera_state = mappings.camera_state;
    if (!options.no_video) {
        simulation.feed.ring = begin_ring(mappings.ring, simulation.order.frame_capacity);
        simulation.feed.ring_fd = mappings.ring_fd;
    }
    return true;
}
