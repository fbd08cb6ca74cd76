#include "beacon_web/file_worker.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <pthread.h>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace {

struct Worker {
    std::mutex mutex; // of what follows
    std::condition_variable has_work;
    std::deque<FileWork> work;
    std::vector<FileResult> results;
    bool is_working = false;
    TimePoint began{};        // its present work
    void (*wake)() = nullptr; // set before the thread starts
};

} // namespace

// Never destroyed: the thread does not end.
static Worker *worker = nullptr; // written at start-up

static void work_on() {
    pthread_setname_np(pthread_self(), "files");
    for (;;) {
        std::unique_lock lock(worker->mutex);
        worker->has_work.wait(lock, [] { return !worker->work.empty(); });
        const FileWork work = std::move(worker->work.front());
        worker->work.pop_front();
        worker->began = Clock::now();
        worker->is_working = true;
        lock.unlock();
        FileResult result = work();
        lock.lock();
        worker->is_working = false;
        worker->results.push_back(std::move(result));
        lock.unlock();
        worker->wake();
    }
}

bool start_file_worker(void (*wake)()) {
    if (worker != nullptr) {
        worker->wake = wake;
        return true;
    }
    worker = new Worker;
    worker->wake = wake;
    try {
        std::thread(work_on).detach();
    } catch (const std::system_error &) {
        delete std::exchange(worker, nullptr);
        return false;
    }
    return true;
}

double file_work_age(TimePoint now) {
    if (worker == nullptr) {
        return 0;
    }
    const std::lock_guard lock(worker->mutex);
    return worker->is_working ? seconds_between(worker->began, now) : 0;
}

bool give_file_work(FileWork work) {
    if (worker == nullptr) {
        return false;
    }
    const std::lock_guard lock(worker->mutex);
    if (worker->work.size() >= most_file_work) {
        return false;
    }
    worker->work.push_back(std::move(work));
    worker->has_work.notify_one();
    return true;
}

void take_file_results() {
    if (worker == nullptr) {
        return;
    }
    std::vector<FileResult> results;
    {
        const std::lock_guard lock(worker->mutex);
        results.swap(worker->results);
    }
    for (const FileResult &result : results) {
        result();
    }
}
