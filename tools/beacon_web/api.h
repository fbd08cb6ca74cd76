#pragma once

// The console's interface for its page and for other programs: /api/v1.
// Stands on: beacon_web/board_view, beacon_web/display_mode, beacon_web/gimbal_hold,
// beacon_web/http_reply, beacon_web/job_queue, beacon_web/live_text, beacon_web/rc_calibration,
// beacon_web/request_check, beacon_web/setting_change, client/answers, client/clock,
// client/command_text, client/packet, client/rc_channels, client/scan, client/section,
// client/setting_rows.

#include "beacon_web/board_view.h"
#include "beacon_web/gimbal_hold.h"
#include "beacon_web/http_reply.h"
#include "beacon_web/job_queue.h"
#include "beacon_web/request_check.h"
#include "client/clock.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

// docs/openapi.yaml describes it.

struct Api {
    const BoardView &view;
    GimbalHold &gimbal;
    JobQueue &jobs;
    bool has_camera_options;                       // --allow-camera-options
    std::function<void(const std::string &)> send; // a payload to the daemon
};

// Answers a request whose path begins with /api/. With status 0 the reply comes when the job of
// that number is over.
HttpReply answer_api(const Api &api, const RequestHead &head, const std::string &body,
                     TimePoint now);

// The sticks in a message of the page, {"gimbal":[pan,tilt,roll]}; nothing if it is none.
std::optional<Sticks> parse_sticks(std::string_view message);
