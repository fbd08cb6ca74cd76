#pragma once

// Lists, sends and deletes the board's recordings for browsers.
// Stands on: beacon_web/byte_range, beacon_web/file_worker, beacon_web/http_reply,
// beacon_web/job_queue, beacon_web/recordings, beacon_web/request_check, client/answers,
// client/clock.

#include "beacon_web/http_reply.h"
#include "beacon_web/job_queue.h"
#include "beacon_web/request_check.h"
#include "client/clock.h"

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// A request that waits for the worker, and so for a disk.
struct DiskWait {
    uint64_t job = 0;
    TimePoint until{};                              // when it is given up
    std::shared_ptr<std::atomic<bool>> is_given_up; // read by the worker before it begins
};

struct DiskWaits {
    std::vector<DiskWait> waits;
    bool is_silent = false; // a disk does not answer, and this has been said
};

constexpr double disk_patience = 15.0; // seconds

struct RecordingsApi {
    bool is_here;                       // the daemon runs on this machine
    uint64_t &last_job;                 // the number of the last job
    std::vector<FinishedJob> &finished; // gets the replies that come later
    DiskWaits &disks;
};

bool is_about_recordings(std::string_view path);

// Answers a request for which is_about_recordings() holds. With status 0 the reply comes into
// `finished`, by take_file_results().
HttpReply answer_recordings(const RecordingsApi &api, const RequestHead &head,
                            const std::string &body, TimePoint now);

// Gives up requests that have waited for too long: their replies go to `finished`, and what they
// wanted is not begun any more. Says on standard error when a disk stops to answer, and when it
// answers again.
void step_disk_waits(DiskWaits &disks, std::vector<FinishedJob> &finished, TimePoint now);
