#include "automove/movement_runner.h"

#include "automove/camera_state_layout.h"
#include "automove/movement_list.h"
#include "automove/movement_steps.h"
#include "base/pause.h"
#include "base/relaxed.h"
#include "base/shared_memory.h"
#include "config/config.h"
#include "media/data_source.h"
#include "rc/rc_block.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <pthread.h>

constexpr const char *state_file = "/run/quillorbeacon/automovements_state";
constexpr uint32_t idle_us = 1000000;
constexpr uint32_t playing_us = 10000;
constexpr uint32_t smooth_pass_us = 200000;
constexpr int repeat_pass = 11; // unchanged speeds are sent again with every 11th pass
constexpr int no_movement = -1;
constexpr double farthest = 10000.0;

// The runner's state, shared by the movement thread and the command threads.
static struct {
    std::atomic<const uint8_t *> camera; // the shared camera state; null: not mapped
    Relaxed<int32_t> index;              // of the current movement
    Relaxed<int32_t> running;            // not 0: the list is played
    Relaxed<int32_t> current;            // movement in progress; no_movement: none
    Relaxed<int32_t> reset_pending;      // 1: the app gimbal values are to be zeroed some time
    Relaxed<int32_t> nearest;
    Relaxed<double> last_pan; // speeds sent last in smooth mode
    Relaxed<double> last_tilt;
    Relaxed<double> last_roll;
    Relaxed<int32_t> repeats; // passes since then
} runner;

static void steer(const GimbalValues &speeds) {
    set_app_gimbal_values(speeds.pan, speeds.tilt, speeds.roll);
    runner.reset_pending = 1;
}

static void stop_steering() {
    steer({0.0, 0.0, 0.0});
}

static double tenths_at(const uint8_t *field) {
    return static_cast<int16_t>(load_whole<uint16_t>(field)) * 0.1;
}

static CameraAngles camera_angles() {
    const uint8_t *camera = runner.camera.load(std::memory_order_acquire);
    if (camera == nullptr) {
        return {0.0, 0.0, 0.0};
    }
    return {tenths_at(camera + camera_pan_at), tenths_at(camera + camera_tilt_at),
            tenths_at(camera + camera_roll_at)};
}

// Second by second: sleep_us takes an hour at most, a delay may be years.
static void sleep_ms(uint64_t milliseconds) {
    for (; milliseconds > 1000; milliseconds -= 1000) {
        sleep_us(1000000);
    }
    sleep_us(static_cast<uint32_t>(milliseconds) * 1000);
}

static void wait_seconds(int seconds) {
    fprintf(stderr, "\tWaiting %d seconds\n", seconds);
    sleep_ms(static_cast<uint64_t>(seconds) * 1000);
}

static void carry_out(const MovementStep &step) {
    fputs(step.message.c_str(), stderr);
    if (step.is_command) {
        send_data_source_command(step.cmd, "", step.param.c_str(), step.value.c_str(),
                                 step.value2.c_str(), step.value3.c_str());
    }
    sleep_ms(step.wait_ms);
}

static void run_direct(int number, const Movement &movement) {
    fprintf(stderr, "Starting auto movement number %d/%d\n", number + 1, movement_count());
    for (const MovementStep &step : direct_movement_steps(movement)) {
        carry_out(step);
    }
}

static void arrive(const Movement &movement) {
    runner.current = no_movement;
    if (runner.running == 0) {
        fprintf(stderr, "Movement ID %d finished\n", static_cast<int>(runner.index));
        stop_steering();
        return;
    }
    if (movement.delay > 0) {
        stop_steering();
        wait_seconds(movement.delay);
    }
    runner.index = runner.index + 1;
    fprintf(stderr, "Start new movement ID %d\n", static_cast<int>(runner.index));
}

static bool are_speeds_new(const GimbalValues &speeds) {
    return speeds.pan != runner.last_pan || speeds.tilt != runner.last_tilt ||
           speeds.roll != runner.last_roll;
}

// Sends speeds that changed, and unchanged ones now and then.
static void send_speeds(const GimbalValues &speeds) {
    const bool is_new = are_speeds_new(speeds);
    runner.repeats = runner.repeats + 1;
    if (!is_new && runner.repeats < repeat_pass) {
        return;
    }
    steer(speeds);
    runner.last_pan = speeds.pan;
    runner.last_tilt = speeds.tilt;
    runner.last_roll = speeds.roll;
    runner.repeats = 0;
}

static void run_smooth(int number, const Movement &movement) {
    const SmoothPass pass =
        smooth_movement_pass(movement, camera_angles(), config_record().automove_smooth_speed);
    if (pass.is_arrived) {
        arrive(movement);
    } else {
        runner.current = number;
    }
    // An error exactly at the threshold moves its axis although the movement has arrived; when
    // nothing goes on after that, nobody would stop it again.
    const bool goes_on = runner.running != 0 || runner.current != no_movement;
    send_speeds(goes_on ? pass.speeds : GimbalValues{0.0, 0.0, 0.0});
    sleep_us(smooth_pass_us);
}

static bool is_direct() {
    return config_record().automove_smooth == 0;
}

static void run_movement_as(int number, bool direct) {
    if (number < 0 || number >= movement_count()) {
        return;
    }
    runner.index = number;
    const Movement movement = movement_at(number);
    if (direct) {
        run_direct(number, movement);
    } else {
        run_smooth(number, movement);
    }
}

void run_movement(int number) {
    run_movement_as(number, is_direct());
}

void move_next() {
    const int next = runner.index + 1;
    run_movement(next >= movement_count() ? 0 : next);
}

void move_prev() {
    const int previous = runner.index - 1;
    run_movement(previous < 0 ? movement_count() - 1 : previous);
}

void set_automove_state(int on) {
    if (on != 0) {
        fputs("Auto movement start\n", stderr);
    } else {
        fputs("Auto movement stop\n", stderr);
        runner.current = no_movement;
        stop_steering();
    }
    runner.running = on;
    FILE *file = fopen(state_file, "we");
    if (file != nullptr) {
        fprintf(file, "%d", on);
        fclose(file);
    }
}

static void bring_index_into_range() {
    const int index = runner.index;
    const int count = movement_count();
    if (index >= count) {
        runner.index = 0;
    } else if (index < 0) {
        runner.index = count - 1;
    }
}

static void find_nearest() {
    const CameraAngles camera = camera_angles();
    double smallest = farthest;
    for (int i = 0; i < movement_count(); ++i) {
        const double distance = movement_distance(movement_at(i), camera);
        if (distance < smallest) {
            smallest = distance;
            runner.nearest = i;
        }
    }
}

// Plays the current movement, or one pass of it. The mode may change meanwhile: what began directly
// ends so, and what was steered is not left out for having been steered.
static void play() {
    const int number = runner.index;
    const bool direct = is_direct();
    run_movement_as(number, direct);
    if (direct) {
        wait_seconds(std::max(movement_at(std::clamp(number, 0, movement_capacity - 1)).delay, 1));
        runner.index = runner.index + 1;
    }
}

// One turn of the movement thread; returns how long to sleep after it.
static uint32_t take_turn() {
    bring_index_into_range();
    if (movement_count() == 0) {
        return idle_us;
    }
    find_nearest();
    if (runner.current == no_movement && runner.running == 0) {
        return idle_us;
    }
    if (data_source_present()) {
        play();
        return playing_us;
    }
    if (runner.reset_pending != 0) {
        set_app_gimbal_values(0.0, 0.0, 0.0);
        runner.reset_pending = 0;
    }
    return idle_us;
}

[[noreturn]] static void *run_movement_thread(void * /*unused*/) {
    name_thread("automove");
    for (;;) {
        sleep_us(take_turn());
    }
}

void init_automove() {
    fputs("Auto movement init\n", stderr);
    runner.index = 0;
    runner.current = no_movement;
    fputs(shared_memory_exists(camera_state_name) ? "Shared cam state mem opened\n"
                                                  : "Creating new shared cam state\n",
          stderr);
    runner.camera.store(map_shared_memory(camera_state_name, camera_state_size, nullptr),
                        std::memory_order_release);
    pthread_t thread{};
    pthread_create(&thread, nullptr, run_movement_thread, nullptr);
}

bool automove_running() {
    return runner.running != 0;
}

int automove_index() {
    return runner.index;
}

int automove_nearest() {
    return runner.nearest;
}
