#pragma once

// A question to the daemon: when to send it again, and which packet answers it.
// Stands on: client/clock, client/packet.

#include "client/clock.h"
#include "client/packet.h"

#include <functional>
#include <string>

// Datagrams get lost, so a question is sent several times until its answer comes. This reads no
// clock and sends nothing. A program with a poll loop of its own steps a request with the time and
// shows it every packet:
//
//     switch (step_request(request, now)) {
//     case RequestStep::send: send_payload(link, request.payload); break;
//     case RequestStep::wait: break;                // nothing to do before request.due
//     case RequestStep::silent: ...                 // no answer: give up
//     }
//     if (request.take(packet)) { ... }             // for each packet: was it the answer?
//
// ask() in client/wait.h does the same and blocks.
//
// The daemon's answers do not say which question they answer. So have one request of a kind under
// way at a time, and expect that a second answer may still come after the first.

struct Request {
    std::string payload;
    // Returns true if the packet is the answer, and stores what it says in the record that the
    // request was made with. That record must live as long as the request.
    std::function<bool(const PacketView &)> take;
    Duration interval{}; // from one send to the next
    int sends_left = 1;
    TimePoint due{}; // when step_request() has something to do
};

// Makes a request that is sent `tries` times, spread evenly over `seconds`, and then given up. The
// first send is due at once.
Request make_request(std::string payload, double seconds, int tries,
                     std::function<bool(const PacketView &)> take);

enum class RequestStep {
    send,   // send the payload
    wait,   // nothing to do before `due`
    silent, // no answer came in time
};
RequestStep step_request(Request &request, TimePoint now);

// Asks who is there.
Request info_request(double seconds, int tries, BoardInfo &info);
