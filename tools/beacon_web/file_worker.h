#pragma once

// Does what may have to wait for a disk, in a thread of its own.
// Stands on: client/clock.

#include "client/clock.h"

#include <functional>

// A disk that does not answer holds up only those who wait for a file: the server's thread never
// touches one.

// What is to be done with the outcome, by the thread that gave the work.
using FileResult = std::function<void()>;
// The work itself, done by the worker. It may use nothing that the other thread changes meanwhile.
using FileWork = std::function<FileResult()>;

constexpr size_t most_file_work = 200; // that waits

// Starts the thread. `wake` is called by it when a result is there. False: there is no thread.
bool start_file_worker(void (*wake)());

// Seconds for which the worker has been doing the same work; 0: it waits for some.
double file_work_age(TimePoint now);

// One after the other is done, in this order. False: too much is waiting, or there is no worker.
bool give_file_work(FileWork work);

// Does what there is to do with the results. Call it after `wake`, by the thread that gives the
// work.
void take_file_results();
