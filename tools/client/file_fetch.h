#pragma once

// Fetches a file from the board: says what to ask for and when, and takes what comes.
// Stands on: client/clock, client/file_transfer, client/packet.

#include "client/clock.h"
#include "client/file_transfer.h"
#include "client/packet.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// Reads no clock, sends nothing and writes no file. A program steps the fetch with the time, shows
// it every packet, and writes the data where it belongs:
//
//     FileFetch fetch = begin_fetch("/media/DCIM/a.mp4", 5.0, now);
//     switch (step_fetch(fetch, now)) {
//     case FetchStep::ask: send_payload(link, fetch_payload(fetch)); break;
//     case FetchStep::wait: break;               // nothing to do before fetch.due
//     case FetchStep::silent: ...                // the daemon does not answer: give up
//     }
//     const FetchEvent event = take_packet(fetch, packet, now);   // for each packet
//
// The daemon serves one piece at a time, to whichever client asked last, and remembers the size of
// one file. So have one fetch under way on a board at a time. Another client's fetch slows this one
// down, and may make the daemon tell a wrong size for a moment; then the fetch asks for the size
// again by itself.
//
// When a fetch has failed or is silent, it is over. The data that came until then is good: a new
// fetch can resume after it.

struct FileFetch {
    std::string path; // on the board
    FileTransfer transfer;
    PieceClock clock;
    std::string kept_tail; // what the first data has to begin with
    double timeout = 5.0;  // seconds of silence
    bool is_asked = false; // and not answered
    bool is_size_known = false;
    int restarts = 0; // how often the size was asked for again
    TimePoint asked{};
    TimePoint heard{};
    TimePoint due{}; // when step_fetch() has something to do
};

constexpr size_t longest_path = 255; // bytes; the daemon has no file with a longer one

// Begins to fetch `path`, of 1 to longest_path bytes. The fetch gives up when the daemon has not
// answered for `timeout` seconds.
FileFetch begin_fetch(std::string path, double timeout, TimePoint now);

// Resumes a file of which the first `length` bytes were fetched earlier, at most largest_file.
// `tail` is the end of these bytes. It is fetched again and compared, so that the rest of a
// different file is not appended; it may be empty, and 4096 bytes are enough. Call this before the
// first step.
void resume_fetch(FileFetch &fetch, uint32_t length, std::string_view tail);

enum class FetchStep {
    ask,    // send fetch_payload()
    wait,   // nothing to do before `due`
    silent, // the daemon has not answered for the fetch's timeout
};
FetchStep step_fetch(FileFetch &fetch, TimePoint now);
std::string fetch_payload(const FileFetch &fetch);

enum class FetchNews {
    nothing,   // the packet is not for this fetch, or has nothing for the program
    size,      // transfer.size is known now
    data,      // write it
    complete,  // write the data, which may be empty; then the file is complete
    missing,   // there is no such file, it is a folder, or it has 2 GiB or more
    too_large, // larger than largest_file
    shorter,   // the file is shorter than the length to resume at
    differs,   // the file does not have that tail
    changed,   // the file's size changed while it was fetched
    cut_short, // the file ends before its size
};
struct FetchEvent {
    FetchNews news = FetchNews::nothing;
    uint32_t offset = 0;             // of the data in the file
    std::span<const uint8_t> data{}; // belongs to the packet's buffer
};

// Takes a packet. From `missing` on, the news is that the fetch has failed.
FetchEvent take_packet(FileFetch &fetch, const PacketView &packet, TimePoint now);
