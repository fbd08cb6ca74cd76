#pragma once

// A pass over a block in ordinary memory, for the tests of what a pass computes and reports.

#include "rc/rc_pass.h"

#include "base/bytes.h"
#include "base/shared_numbers.h"

#include <cmath>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

inline uint32_t test_time;

inline uint32_t test_clock() {
    return test_time;
}

// The calibration and assignment of a channel under test.
struct Assignment {
    int function = function_pan;
    int min = 1000;
    int max = 2000;
    int center = 1500;
    int dead_band = 0;
    int limit = 100;
    bool is_inverted = false;
};

// A pass over a block in ordinary memory; both receivers have been found already.
class RcPass : public ::testing::Test {
protected:
    RcPass() {
        test_time = 1000000;
        state_.present[0] = true;
        state_.present[1] = true;
        bytes_[0] = rc_present;
        bytes_[1] = rc_present;
    }
    uint8_t *block() {
        return bytes_.data();
    }
    uint8_t *channel(int index) {
        return rc_channel(block(), index);
    }
    void assign(int index, const Assignment &assignment) {
        put_u16(channel(index) + 2, static_cast<uint16_t>(assignment.min));
        put_u16(channel(index) + 4, static_cast<uint16_t>(assignment.max));
        put_u16(channel(index) + 6, static_cast<uint16_t>(assignment.center));
        channel(index)[8] = assignment.is_inverted ? 1 : 0;
        channel(index)[24] = static_cast<uint8_t>(assignment.function);
        put_u16(channel(index) + 26, static_cast<uint16_t>(assignment.dead_band));
        put_u16(channel(index) + 28, static_cast<uint16_t>(assignment.limit));
    }
    void set_raw(int index, int raw) {
        put_u16(channel(index), static_cast<uint16_t>(raw));
    }
    void set_update_time(int receiver, uint32_t time) {
        put_u32(block() + 4 + receiver * 4, time);
    }
    uint32_t update_time(int receiver) {
        return get_u32(block() + 4 + receiver * 4);
    }
    double value(int index) {
        return load_whole<double>(channel(index) + 16);
    }
    double published(int function) {
        return load_whole<double>(block() + 1040 + function * 8);
    }
    unsigned published_raw(int function) {
        return get_u16(block() + 1408 + function * 2);
    }
    // A pass while the readers keep writing.
    RcEvents run() {
        set_update_time(0, test_time);
        set_update_time(1, test_time);
        return run_as_is();
    }
    RcEvents run_as_is() {
        return run_rc_pass(block(), *config_, test_clock, app_, state_);
    }
    // What a pass prints on standard error.
    std::string said_by_pass() {
        ::testing::internal::CaptureStderr();
        run_as_is();
        return ::testing::internal::GetCapturedStderr();
    }
    // The events of a pass as text: menu codes, then '+' for start and '-' for stop.
    std::string events() {
        const RcEvents found = run();
        std::string text;
        for (size_t i = 0; i < found.menu_count; ++i) {
            text += std::to_string(found.menu[i]);
        }
        for (size_t i = 0; i < found.record_count; ++i) {
            text += found.record[i] == RecordCommand::start ? '+' : '-';
        }
        return text;
    }
    // Makes channel `index` a stick for `function`; its raw value is 1500 plus 500 times its
    // deflection.
    void add_stick(int index, int function) {
        assign(index, {.function = function});
        set_raw(index, 1500);
    }
    void move_stick(int index, double way) {
        set_raw(index, 1500 + static_cast<int>(std::lround(way * 500)));
    }

    Bytes bytes_ = Bytes(rc_block_size);
    std::unique_ptr<ConfigRecord> config_ = std::make_unique<ConfigRecord>();
    GimbalValues app_{};
    RcLoopState state_{};
};
