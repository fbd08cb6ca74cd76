#include "beacon_web/recordings_api.h"

#include "beacon_web/byte_range.h"
#include "beacon_web/file_worker.h"
#include "beacon_web/recordings.h"
#include "client/answers.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>

constexpr std::string_view list_path = "/api/v1/recordings";
constexpr std::string_view delete_path = "/api/v1/recordings/delete";
constexpr std::string_view files_path = "/files/";

constexpr const char *elsewhere =
    "The recordings are on the board, and this console runs on another machine. Start it on the "
    "board to see them, or fetch them with beaconctl download.";

bool is_about_recordings(std::string_view path) {
    return path == list_path || path == delete_path || path.starts_with(files_path);
}

// The request with that number is answered. False: it was given up before.
static bool end_wait(DiskWaits &disks, uint64_t job) {
    return std::erase_if(disks.waits, [job](const DiskWait &wait) { return wait.job == job; }) != 0;
}

static HttpReply silent_reply() {
    return error_reply(503, "the board's disk does not answer");
}

static HttpReply later(const RecordingsApi &api, TimePoint now, std::function<HttpReply()> make) {
    if (api.disks.is_silent) {
        return silent_reply();
    }
    HttpReply waiting;
    waiting.job = ++api.last_job;
    const auto is_given_up = std::make_shared<std::atomic<bool>>(false);
    const bool is_given =
        give_file_work([make = std::move(make), job = waiting.job, is_given_up, &disks = api.disks,
                        &finished = api.finished]() -> FileResult {
            const auto reply = std::make_shared<HttpReply>(*is_given_up ? HttpReply{} : make());
            return [reply, job, &disks, &finished] {
                if (end_wait(disks, job)) {
                    finished.push_back({job, std::move(*reply)});
                }
            };
        });
    if (!is_given) {
        return error_reply(503, "too many requests wait for the board's disks");
    }
    api.disks.waits.push_back({waiting.job, now + from_seconds(disk_patience), is_given_up});
    return waiting;
}

void step_disk_waits(DiskWaits &disks, std::vector<FinishedJob> &finished, TimePoint now) {
    const bool was_silent = std::exchange(disks.is_silent, file_work_age(now) > disk_patience);
    if (disks.is_silent && !was_silent) {
        fputs("beacon-web: the board's disk does not answer; its recordings are not to be had\n",
              stderr);
    }
    if (was_silent && !disks.is_silent) {
        fputs("beacon-web: the board's disk answers again\n", stderr);
    }
    std::erase_if(disks.waits, [&finished, now](const DiskWait &wait) {
        if (now <= wait.until) {
            return false;
        }
        *wait.is_given_up = true;
        finished.push_back({wait.job, silent_reply()});
        return true;
    });
}

static Json file_json(const Recording &file) {
    return {{"place", file.place},       {"path", file.path},          {"size", file.size},
            {"modified", file.modified}, {"film", is_film(file.path)}, {"preview", file.preview}};
}

static HttpReply list_reply() {
    const RecordingList list = list_recordings(storage_places());
    Json files = Json::array();
    for (const Recording &file : list.files) {
        files.push_back(file_json(file));
    }
    return json_reply(
        200, json_text({{"here", true}, {"complete", list.is_complete}, {"files", files}}));
}

static HttpReply problem_reply(int reason) {
    switch (reason) {
    case ENOENT:
        return error_reply(404, "there is no such recording");
    case EACCES:
    case EPERM:
        return error_reply(403, "the console may not touch this file");
    case EROFS:
        return error_reply(403, "the disk is read-only");
    default:
        return error_reply(500, std::string("the disk: ") +
                                    strerror(reason)); // NOLINT(concurrency-mt-unsafe)
    }
}

static void add_range(HttpReply &reply, const std::string &text) {
    reply.headers.emplace_back("content-range:", "bytes " + text);
}

// To close a file may have to wait, too: that is the worker's, whoever has it last.
static std::shared_ptr<OpenFile> closed_by_worker(std::shared_ptr<OpenFile> file) {
    OpenFile *opened = file.get();
    return {opened, [file = std::move(file)](OpenFile *) mutable {
                give_file_work([file = std::move(file)]() mutable -> FileResult {
                    file = nullptr;
                    return [] {};
                });
            }};
}

static HttpReply file_reply(const std::string &folder, const std::string &path,
                            const RequestHead &head) {
    int reason = 0;
    auto file = open_recording(folder, path, reason);
    if (!file) {
        return problem_reply(reason);
    }
    const std::string tag = version_tag(file->size, file->modified, file->modified_ns);
    const std::string date = http_date(file->modified);
    const bool is_resumed = names_version(head.if_range, tag, date);
    const ByteRange range = wanted_range(is_resumed ? head.range : "", file->size);
    if (range.kind == RangeKind::impossible) {
        HttpReply reply = error_reply(416, "the recording does not have these bytes");
        add_range(reply, "*/" + std::to_string(file->size));
        return reply;
    }
    HttpReply reply;
    reply.status = range.kind == RangeKind::part ? 206 : 200;
    reply.type = recording_type(path);
    reply.headers.emplace_back("accept-ranges:", "bytes");
    reply.headers.emplace_back("etag:", tag);
    reply.headers.emplace_back("last-modified:", date);
    if (range.kind == RangeKind::part) {
        add_range(reply, std::to_string(range.first) + "-" +
                             std::to_string(range.first + range.size - 1) + "/" +
                             std::to_string(file->size));
    }
    reply.file = closed_by_worker(std::move(file));
    reply.file_first = range.first;
    reply.file_size = range.size;
    return reply;
}

static HttpReply send_file(const RecordingsApi &api, const RequestHead &head, TimePoint now) {
    const std::string rest = head.path.substr(files_path.size());
    const size_t slash = rest.find('/');
    const char *folder = place_folder(rest.substr(0, slash));
    if (folder == nullptr || slash == std::string::npos) {
        return problem_reply(ENOENT);
    }
    return later(api, now, [folder, path = rest.substr(slash + 1), head] {
        return file_reply(folder, path, head);
    });
}

static HttpReply delete_file(const RecordingsApi &api, const std::string &body, TimePoint now) {
    const Json wanted = Json::parse(body, nullptr, false);
    if (!wanted.is_object()) {
        return error_reply(400, "the content has to be a JSON object");
    }
    const Json place = wanted.value("place", Json());
    const Json path = wanted.value("path", Json());
    if (!place.is_string() || !path.is_string()) {
        return error_reply(422, "\"place\" and \"path\" have to be those of a recording");
    }
    const char *folder = place_folder(place.get<std::string>());
    if (folder == nullptr) {
        return problem_reply(ENOENT);
    }
    return later(api, now, [folder, path = path.get<std::string>()] {
        const int reason = delete_recording(folder, path);
        return reason == 0 ? json_reply(200, "{}") : problem_reply(reason);
    });
}

HttpReply answer_recordings(const RecordingsApi &api, const RequestHead &head,
                            const std::string &body, TimePoint now) {
    const bool is_reading = head.method == "GET" || head.method == "HEAD";
    if (is_reading == (head.path == delete_path) || (!is_reading && head.method != "POST")) {
        return error_reply(404, status_words_of(404));
    }
    if (!api.is_here) {
        return head.path == list_path ? json_reply(200, json_text({{"here", false},
                                                                   {"complete", true},
                                                                   {"files", Json::array()},
                                                                   {"why", elsewhere}}))
                                      : error_reply(404, elsewhere);
    }
    if (head.path == list_path) {
        return later(api, now, list_reply);
    }
    return head.path == delete_path ? delete_file(api, body, now) : send_file(api, head, now);
}
