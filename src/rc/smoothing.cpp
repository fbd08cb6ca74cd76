#include "rc/smoothing.h"

#include "base/pause.h"
#include "base/relaxed.h"
#include "base/state_file.h"

#include <cstdio>
#include <pthread.h>

constexpr uint32_t period_us = 100000;
constexpr size_t text_size = 100;
constexpr double never_published = -10000.0;

// A triple that two threads share.
struct SharedTriple {
    Relaxed<double> pan;
    Relaxed<double> tilt;
    Relaxed<double> roll;
};

// Written by the RC loop, read by the publisher.
static SharedTriple app_triple;
static SharedTriple rc_triple;
static SharedTriple total_triple;

static void store(SharedTriple &triple, const GimbalValues &values) {
    triple.pan = values.pan;
    triple.tilt = values.tilt;
    triple.roll = values.roll;
}

void set_smoothed_values(const SmoothedValues &values) {
    store(app_triple, values.app);
    store(rc_triple, values.rc);
    store(total_triple, values.total);
}

void format_gimbal_values(const GimbalValues &values, char *text, size_t size) {
    snprintf(text, size, "%f,%f,%f", values.pan, values.tilt, values.roll);
}

// A triple's file and the values last written to it.
struct PublishedTriple {
    StateFile file;
    const SharedTriple *triple;
    GimbalValues published;
};

static void write_values(StateFile &file, const GimbalValues &values) {
    char text[text_size];
    format_gimbal_values(values, text, sizeof text);
    write_state_file(file, text);
}

static void publish_changes(PublishedTriple &state) {
    const GimbalValues now{state.triple->pan, state.triple->tilt, state.triple->roll};
    if (now.pan != state.published.pan || now.tilt != state.published.tilt ||
        now.roll != state.published.roll) {
        write_values(state.file, now);
        state.published = now;
    }
}

[[noreturn]] static void *run_publisher_thread(void * /*unused*/) {
    name_thread("smoothing");
    constexpr GimbalValues none{never_published, never_published, never_published};
    static PublishedTriple triples[] = {
        {{"/run/quillorbeacon/smooth_ptd_app_values"}, &app_triple, none},
        {{"/run/quillorbeacon/smooth_ptd_rc_values"}, &rc_triple, none},
        {{"/run/quillorbeacon/smooth_ptd_total_values"}, &total_triple, none},
    };
    for (;;) {
        for (PublishedTriple &triple : triples) {
            publish_changes(triple);
        }
        sleep_us(period_us);
    }
}

int start_smoothing_publisher() {
    pthread_t thread{};
    return pthread_create(&thread, nullptr, run_publisher_thread, nullptr) == 0 ? 0 : -1;
}
