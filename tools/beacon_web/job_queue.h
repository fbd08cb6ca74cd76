#pragma once

// Requests of browsers that wait for the daemon's answers, one after the other.
// Stands on: beacon_web/http_reply, client/packet, client/request.

#include "beacon_web/http_reply.h"
#include "client/packet.h"
#include "client/request.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// The daemon's answers do not say which question they answer, so there is one question at a time.
// Reads no clock and sends nothing.

struct Job {
    uint64_t id = 0;
    Request request;                   // the question that is being asked
    std::vector<std::string> commands; // to send before it is asked
    // Called when the request was answered, or was given up. Returns the reply to the browser; or
    // nothing, having replaced `request`, and the job goes on.
    std::function<std::optional<HttpReply>(Job &, bool is_answered, TimePoint now)> go_on;
};

struct JobQueue {
    std::deque<Job> jobs;
    uint64_t last_id = 0;
};

constexpr size_t most_jobs = 20;

// Returns the job's number; 0: too many are waiting.
uint64_t add_job(JobQueue &queue, Job job);

struct FinishedJob {
    uint64_t id;
    HttpReply reply;
};

// What is due at `now`: payloads to send, and jobs that are over.
struct JobWork {
    std::vector<std::string> payloads;
    std::vector<FinishedJob> finished;
};
JobWork step_jobs(JobQueue &queue, TimePoint now);

// Nobody listens: the first job's question is given up at the next step.
void give_up(JobQueue &queue, TimePoint now);

// Shows the first job a packet.
std::optional<FinishedJob> show_packet(JobQueue &queue, const PacketView &packet, TimePoint now);
