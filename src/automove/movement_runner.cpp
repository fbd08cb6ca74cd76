#include "automove/movement_runner.h"

#include "automove/camera_state_layout.h"
#include "automove/movement_list.h"
#include "automove/movement_steps.h"
#include "base/clock.h"
#include "base/pause.h"
#include "base/relaxed.h"
#include "base/shared_memory.h"
#include "base/shared_numbers.h"
#include "base/state_file.h"
#include "config/config.h"
#include "media/data_source.h"
#include "rc/rc_block.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <pthread.h>
#include <semaphore.h>
#include <string>
#include <vector>

constexpr uint64_t second_ms = 1000;
constexpr uint32_t map_retry_ms = 1000;
constexpr uint64_t idle_ms = 1000;
constexpr uint64_t playing_ms = 10;
constexpr uint64_t commanded_ms = 10000; // longer than a direct movement without its delay
constexpr uint32_t smooth_pass_us = 200000;
constexpr int repeat_pass = 11; // unchanged speeds are sent again on every 11th pass
constexpr int no_movement = -1;
constexpr double farthest = 10000.0;

static StateFile state_file{"/run/quillorbeacon/automovements_state"};

// The runner's state, shared by the movement thread and the command threads.
static struct {
    std::atomic<const uint8_t *> camera; // the shared camera state; null: not mapped
    std::atomic<int32_t> index;          // of the current movement
    Relaxed<int32_t> running;            // not 0: the list is being played
    Relaxed<int32_t> current;            // movement in progress; no_movement: none
    Relaxed<int32_t> reset_pending;      // 1: zero the app gimbal values when the source is lost
    Relaxed<int32_t> nearest;
    Relaxed<double> last_pan; // the speeds last sent in smooth mode
    Relaxed<double> last_tilt;
    Relaxed<double> last_roll;
    Relaxed<int32_t> repeats; // passes since they were sent

    // Counts what ends a delay: a stop, another list, another movement.
    std::atomic<uint32_t> changes;
    Relaxed<uint32_t> stopped_at;   // that count, of the last stop
    std::atomic<int32_t> commanded; // movements that command threads are playing
    std::atomic<uint64_t> rest;     // what a command left to the movement thread; see pack_rest
    sem_t wake;                     // posted with each change and rest; zeros until init_automove
} runner;

// The rest of a direct movement that was commanded at that count of changes. Never 0, which stands
// for nothing.
static uint64_t pack_rest(int number, uint32_t changes) {
    return (uint64_t{changes} << 32) | static_cast<uint32_t>(number + 1);
}

static void wake_movement_thread() {
    sem_post(&runner.wake);
}

// Ends the delay that the movement thread is waiting, and drops the rest of a commanded movement.
// Returns the new count.
static uint32_t end_delay() {
    const uint32_t changes = runner.changes.fetch_add(1) + 1;
    wake_movement_thread();
    return changes;
}

void movement_list_changed() {
    end_delay();
}

static bool is_current(uint32_t changes) {
    return runner.changes.load() == changes;
}

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

// Sleeps until `is_over` or the time has passed. The movement thread only.
template <typename Condition>
static void sleep_until_over(uint64_t milliseconds, Condition is_over) {
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_nsec += static_cast<long>(milliseconds % second_ms) * 1000000;
    end.tv_sec += end.tv_nsec / 1000000000;
    end.tv_nsec %= 1000000000;
    uint64_t seconds = milliseconds / second_ms;
    // At most a day at a time: a delay may be years, more than some boards' clocks can count.
    while (!is_over()) {
        const uint64_t part = std::min<uint64_t>(seconds, 86400);
        timespec part_end = end;
        part_end.tv_sec += static_cast<time_t>(part);
        if (sem_clockwait(&runner.wake, CLOCK_MONOTONIC, &part_end) == 0 || errno != ETIMEDOUT) {
            continue;
        }
        if (part == seconds) {
            return;
        }
        end = part_end;
        seconds -= part;
    }
}

// Waits a delay, unless something has changed since that count of changes; true when it was waited
// to its end. The movement thread only.
static bool wait_delay(int seconds, uint32_t changes) {
    if (!is_current(changes)) {
        return false;
    }
    fprintf(stderr, "\tWaiting %d seconds\n", seconds);
    sleep_until_over(static_cast<uint64_t>(seconds) * second_ms,
                     [changes] { return !is_current(changes); });
    return is_current(changes);
}

static void carry_out(const MovementStep &step) {
    fputs(step.message.c_str(), stderr);
    if (step.is_command) {
        send_data_source_command(step.cmd, "", step.param.c_str(), step.value.c_str(),
                                 step.value2.c_str(), step.value3.c_str());
    }
    sleep_us(static_cast<uint32_t>(step.wait_ms) * 1000);
}

// Goes on to the next movement after `number`, unless a command has set another one.
static bool advance_from(int number) {
    return runner.commanded == 0 && runner.index.compare_exchange_strong(number, number + 1);
}

using Steps = std::vector<MovementStep>;

// The steps up to the delay; returns how many that are.
static size_t steps_before_delay(const Steps &steps) {
    const auto delay = std::find_if(steps.begin(), steps.end(),
                                    [](const MovementStep &step) { return step.is_delay; });
    return static_cast<size_t>(delay - steps.begin());
}

// All but the delay and the photo.
static void begin_direct(int number, const Movement &movement) {
    fprintf(stderr, "Starting auto movement number %d/%d\n", number + 1, movement_count());
    const Steps steps = direct_movement_steps(movement);
    std::for_each_n(steps.begin(), steps_before_delay(steps), carry_out);
}

// The delay and the photo; then, if the next movement follows, the delay before that. The movement
// thread only.
static void finish_direct(int number, uint32_t changes, bool next_follows) {
    const Movement movement = movement_at(std::clamp(number, 0, movement_capacity - 1));
    const int delay = std::max(movement.delay, 1);
    const Steps steps = direct_movement_steps(movement);
    const size_t before = steps_before_delay(steps);
    if (before < steps.size() && wait_delay(delay, changes)) {
        std::for_each(steps.begin() + static_cast<ptrdiff_t>(before) + 1, steps.end(), carry_out);
    }
    if (next_follows) {
        wait_delay(delay, changes);
        advance_from(number);
    }
}

// The movement thread only, if the list is played: then it waits the delay.
static void finish_smooth(int number, const Movement &movement, uint32_t changes, bool is_played) {
    runner.current = no_movement;
    if (!is_played) {
        fprintf(stderr, "Movement ID %d finished\n", number);
        stop_steering();
        return;
    }
    if (movement.delay > 0) {
        stop_steering();
        wait_delay(movement.delay, changes);
    }
    if (advance_from(number)) {
        fprintf(stderr, "Start new movement ID %d\n", number + 1);
    }
}

static bool are_speeds_new(const GimbalValues &speeds) {
    return speeds.pan != runner.last_pan || speeds.tilt != runner.last_tilt ||
           speeds.roll != runner.last_roll;
}

// Sends the speeds when they have changed, and now and then when they have not.
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

// A stop may come while a pass is about to note its movement and to send its speeds. The pass takes
// so long after that that it sees the whole stop at its end. The movement thread only.
static void end_if_stopped_since(uint32_t changes) {
    const uint32_t now = runner.changes;
    if (now != changes && runner.stopped_at == now && runner.running == 0) {
        runner.current = no_movement;
        stop_steering();
    }
}

// One pass. `is_commanded` tells that a command thread runs it.
static void run_smooth(int number, const Movement &movement, uint32_t changes, bool is_commanded) {
    const SmoothPass pass =
        smooth_movement_pass(movement, camera_angles(), config_record().automove_smooth_speed);
    // While the list is played, the movement thread finds out the same and waits the delay.
    const bool is_played = runner.running != 0;
    if (pass.is_arrived && !(is_commanded && is_played)) {
        finish_smooth(number, movement, changes, is_played);
    } else {
        runner.current = number;
    }
    // An error exactly at the threshold still moves its axis although the movement has arrived. If
    // nothing follows, nobody would stop that axis, so stop it here.
    const bool goes_on = runner.running != 0 || runner.current != no_movement;
    send_speeds(goes_on ? pass.speeds : GimbalValues{0.0, 0.0, 0.0});
    sleep_us(smooth_pass_us);
    if (!is_commanded) {
        end_if_stopped_since(changes);
    }
}

static bool is_direct() {
    return config_record().automove_smooth == 0;
}

static bool is_in_list(int number) {
    return number >= 0 && number < movement_count();
}

// The movement thread finishes it; see begin_direct.
static void command_direct(int number, const Movement &movement, uint32_t changes) {
    begin_direct(number, movement);
    if (is_current(changes)) {
        runner.rest = pack_rest(number, changes);
    }
}

void run_movement(int number) {
    if (!is_in_list(number)) {
        return;
    }
    // In this order: the movement thread, when its delay ends, must not change the index.
    ++runner.commanded;
    runner.index = number;
    const uint32_t changes = end_delay();
    if (is_direct()) {
        command_direct(number, movement_at(number), changes);
    } else {
        run_smooth(number, movement_at(number), changes, true);
    }
    --runner.commanded;
    wake_movement_thread();
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
    if (on == 0) {
        runner.stopped_at = end_delay();
    }
    write_state_file(state_file, std::to_string(on));
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

// Plays the current movement, or one pass of it in smooth mode. The mode may change during the
// call: the one at its start decides whether to wait and go on to the next movement.
static void play() {
    const uint32_t changes = runner.changes;
    const int number = runner.index;
    const bool direct = is_direct();
    if (is_in_list(number)) {
        if (direct) {
            begin_direct(number, movement_at(number));
        } else {
            run_smooth(number, movement_at(number), changes, false);
        }
    }
    if (direct) {
        finish_direct(number, changes, true);
    }
}

// Finishes the direct movement that a command has begun, if there is one.
static void finish_commanded() {
    const uint64_t rest = runner.rest.exchange(0);
    const auto changes = static_cast<uint32_t>(rest >> 32);
    if (rest != 0 && is_current(changes)) {
        finish_direct(static_cast<int>(rest & 0xFFFFFFFF) - 1, changes, runner.running != 0);
    }
}

static void map_camera_state(MapTry which) {
    runner.camera.store(
        map_shared_memory(whole_object(camera_state_name, camera_state_size), nullptr, which),
        std::memory_order_release);
}

// Tries again once a second what start-up could not map. Movement thread only.
static void map_missing_camera_state() {
    static uint32_t tried_at;
    if (runner.camera.load(std::memory_order_relaxed) == nullptr &&
        now_ms() - tried_at >= map_retry_ms) {
        tried_at = now_ms();
        map_camera_state(MapTry::again);
    }
}

// One turn of the movement thread; returns how long to sleep after it.
static uint64_t take_turn() {
    finish_commanded();
    map_missing_camera_state();
    bring_index_into_range();
    if (movement_count() == 0) {
        return idle_ms;
    }
    find_nearest();
    if (runner.current == no_movement && runner.running == 0) {
        return idle_ms;
    }
    if (data_source_present()) {
        play();
        return playing_ms;
    }
    if (runner.reset_pending != 0) {
        set_app_gimbal_values(0.0, 0.0, 0.0);
        runner.reset_pending = 0;
    }
    return idle_ms;
}

static bool has_rest() {
    return runner.rest != 0;
}

static bool is_nothing_commanded() {
    return runner.commanded == 0;
}

[[noreturn]] static void *run_movement_thread(void * /*unused*/) {
    name_thread("automove");
    for (;;) {
        sleep_until_over(take_turn(), has_rest);
        // Two movements at once would mix their commands.
        sleep_until_over(commanded_ms, is_nothing_commanded);
    }
}

int init_automove() {
    fputs("Auto movement init\n", stderr);
    runner.index = 0;
    runner.current = no_movement;
    sem_init(&runner.wake, 0, 0);
    fputs(shared_memory_exists(camera_state_name) ? "Shared cam state mem opened\n"
                                                  : "Creating new shared cam state\n",
          stderr);
    map_camera_state(MapTry::first);
    pthread_t thread{};
    return pthread_create(&thread, nullptr, run_movement_thread, nullptr) == 0 ? 0 : -1;
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
