#pragma once

#include "client/packet.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

struct StatusRecord;

// The way to the daemon: one UDP socket, and what all commands do with it. One thread.

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;
TimePoint after(double seconds); // that long from now
double seconds_since(TimePoint then);

// Where the daemon is, as the command line says.
struct Target {
    std::string host = "127.0.0.1";
    uint16_t port = 5252;
    std::optional<double> timeout; // seconds; else what suits the command
};
constexpr double usual_timeout = 5.0;

enum class Registration : signed char {
    none = -1,
    everything = 0,
    data_only = 1,
};

struct Link {
    int socket = -1;
    std::string name; // "board.local:5252", for messages
    double timeout = usual_timeout;
    Registration registration = Registration::none; // set by keep_registered
    TimePoint registration_due{};
    int output = -1; // a descriptor whose reader may leave, watched while waiting; -1: none
    std::vector<uint8_t> buffer;

    Link() = default;
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;
    ~Link(); // takes leave of the daemon
};

// Opens the socket. False: a line on standard error says why.
bool open_link(Link &link, const Target &target);

// From now on receive() registers every few seconds, at first at once.
void keep_registered(Link &link, Registration registration);

// What is longer than what the daemon reads is not sent; a line on standard error says so.
void send_payload(const Link &link, std::string_view payload);

enum class Received {
    packet,
    timed_out,
    refused,     // the other machine says that nobody listens there
    stopped,     // by Ctrl-C or SIGTERM
    output_gone, // nobody reads link.output any more
};

// Waits for the next packet, until the deadline at most; what is no packet is passed over. The
// packet is valid until the next call.
Received receive(Link &link, PacketView &packet, TimePoint deadline);

// Passes over what comes until the deadline, or until there is something else than a packet.
void pass_over_packets(Link &link, TimePoint deadline);

// Waits for the next status record; only clients that are registered get them.
Received next_status(Link &link, StatusRecord &record, TimePoint deadline);

enum class Outcome {
    answered,
    silent,
    refused,
    stopped,
};

// Sends a payload, `tries` times in all, spread over `seconds`, until take() says that a packet was
// what had to come.
Outcome request(Link &link, std::string_view payload, double seconds, int tries,
                const std::function<bool(const PacketView &)> &take);

// Asks who is there, over link.timeout.
Outcome ask_board(Link &link, BoardInfo &info);

// Opens the link and sees that the daemon is there. Returns an exit code; if it is not exit_ok, a
// line on standard error has said why.
int reach_board(Link &link, const Target &target, BoardInfo &info);

// True: the daemon had no place for another client, and a line on standard error says so.
bool report_full_house(const BoardInfo &info);

// Says on standard error why there was no answer, and returns the exit code.
int report_silence(const Link &link, Outcome outcome);

// "beaconctl: ..." on standard error; returns exit_failed.
int fail(const std::string &what);

// Ctrl-C and SIGTERM from now on only make stop_requested() true; a broken pipe is an error of
// write().
void catch_stop_signals();
bool stop_requested();
void forget_stop(); // stop_requested() is false until the next signal
