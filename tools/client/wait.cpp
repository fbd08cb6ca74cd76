#include "client/wait.h"

#include <algorithm>
#include <poll.h>

// A signal may arrive just before poll() begins, so is_stopped() is called at least this often.
constexpr int longest_wait_ms = 100;

static bool is_stopped(const Link &link) {
    return link.wait.is_stopped != nullptr && link.wait.is_stopped();
}

// Waits for at most longest_wait_ms. True: the socket can be read.
static bool wait_readable(const Link &link, TimePoint until, bool &is_output_gone) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
    const int wait = static_cast<int>(std::clamp<long long>(left, 0, longest_wait_ms));
    pollfd watched[] = {{link.socket, POLLIN, 0}, {link.wait.output, 0, 0}};
    if (poll(watched, 2, wait) <= 0) {
        return false;
    }
    is_output_gone = (watched[1].revents & (POLLERR | POLLHUP)) != 0;
    return watched[0].revents != 0;
}

Received receive(Link &link, PacketView &packet, TimePoint deadline) {
    while (!is_stopped(link)) {
        const TimePoint due = std::min(deadline, step_link(link, Clock::now()));
        bool is_output_gone = false;
        if (wait_readable(link, due, is_output_gone)) {
            const ReadResult result = read_packet(link, packet, Clock::now());
            if (result == ReadResult::packet) {
                return Received::packet;
            }
            if (result == ReadResult::refused) {
                return Received::refused;
            }
        }
        if (is_output_gone) {
            return Received::output_gone;
        }
        if (Clock::now() >= deadline) {
            return Received::timed_out;
        }
    }
    return Received::stopped;
}

void drop_packets(Link &link, TimePoint deadline) {
    PacketView packet{};
    while (Clock::now() < deadline && receive(link, packet, deadline) == Received::packet) {
    }
}

Received next_status(Link &link, StatusRecord &record, TimePoint deadline) {
    PacketView packet{};
    Received received = Received::packet;
    while ((received = receive(link, packet, deadline)) == Received::packet) {
        if (const auto status = parse_status(packet)) {
            record = *status;
            break;
        }
    }
    return received;
}

Outcome ask(Link &link, Request request) {
    PacketView packet{};
    while (true) {
        switch (step_request(request, Clock::now())) {
        case RequestStep::send:
            send_payload(link, request.payload);
            break;
        case RequestStep::wait:
            break;
        case RequestStep::silent:
            return Outcome::silent;
        }
        switch (receive(link, packet, request.due)) {
        case Received::packet:
            if (request.take(packet)) {
                return Outcome::answered;
            }
            break;
        case Received::timed_out:
            break;
        case Received::refused:
            return Outcome::refused;
        case Received::stopped:
        case Received::output_gone:
            return Outcome::stopped;
        }
    }
}
