#include "beacon_web/job_queue.h"

#include <utility>

uint64_t add_job(JobQueue &queue, Job job) {
    if (queue.jobs.size() >= most_jobs) {
        return 0;
    }
    job.id = ++queue.last_id;
    queue.jobs.push_back(std::move(job));
    return queue.last_id;
}

// Lets the first job go on; if it is over, it leaves the queue.
static std::optional<FinishedJob> go_on(JobQueue &queue, bool is_answered, TimePoint now) {
    Job &job = queue.jobs.front();
    std::optional<HttpReply> reply = job.go_on(job, is_answered, now);
    if (!reply) {
        return std::nullopt;
    }
    FinishedJob finished{job.id, std::move(*reply)};
    if (job.commands.empty()) {
        queue.jobs.pop_front();
        return finished;
    }
    // What it still has to send goes out first.
    job.go_on = [finished](Job &, bool, TimePoint) { return finished.reply; };
    job.request = {};
    job.request.sends_left = 0;
    return std::nullopt;
}

JobWork step_jobs(JobQueue &queue, TimePoint now) {
    JobWork work;
    while (!queue.jobs.empty()) {
        Job &job = queue.jobs.front();
        for (std::string &command : std::exchange(job.commands, {})) {
            work.payloads.push_back(std::move(command));
        }
        const RequestStep step = step_request(job.request, now);
        if (step == RequestStep::send) {
            work.payloads.push_back(job.request.payload);
        }
        if (step != RequestStep::silent) {
            break;
        }
        if (auto finished = go_on(queue, false, now)) {
            work.finished.push_back(std::move(*finished));
        }
    }
    return work;
}

void give_up(JobQueue &queue, TimePoint now) {
    if (!queue.jobs.empty()) {
        queue.jobs.front().request.sends_left = 0;
        queue.jobs.front().request.due = now;
    }
}

std::optional<FinishedJob> show_packet(JobQueue &queue, const PacketView &packet, TimePoint now) {
    if (queue.jobs.empty() || !queue.jobs.front().request.take ||
        !queue.jobs.front().request.take(packet)) {
        return std::nullopt;
    }
    return go_on(queue, true, now);
}
