#include "client/link.h"

#include "beaconctl/exit_codes.h"
#include "client/status_record.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

constexpr size_t largest_datagram = 65536;
constexpr double registration_interval = 2.0;
constexpr double retry_interval = 0.5; // after nobody listened
constexpr int most_clients = 10;       // of the daemon
constexpr int receive_buffer = 8 << 20;
// A signal may come just before the wait begins: it is looked for this often.
constexpr int longest_wait_ms = 100;

static volatile sig_atomic_t stop_signal = 0; // written by the signal handler

static void note_stop(int signal) {
    stop_signal = signal;
}

void catch_stop_signals() {
    struct sigaction action {};
    action.sa_handler = note_stop; // without SA_RESTART: a blocked read or write ends
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

bool stop_requested() {
    return stop_signal != 0;
}

void forget_stop() {
    stop_signal = 0;
}

TimePoint after(double seconds) {
    return Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

double seconds_since(TimePoint then) {
    return std::chrono::duration<double>(Clock::now() - then).count();
}

int fail(const std::string &what) {
    fprintf(stderr, "beaconctl: %s\n", what.c_str());
    return exit_failed;
}

Link::~Link() {
    if (socket < 0) {
        return;
    }
    if (registration != Registration::none) {
        send_payload(*this, std::string(1, ask_remove));
    }
    close(socket);
}

// A connected socket hears of nobody else, and of it when nobody listens.
static int connected_socket(const addrinfo &address) {
    const int fd = socket(address.ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, address.ai_addr, address.ai_addrlen) != 0) {
        const int reason = errno;
        close(fd);
        errno = reason;
        return -1;
    }
    return fd;
}

bool open_link(Link &link, const Target &target) {
    link.name = target.host + ":" + std::to_string(target.port);
    link.timeout = target.timeout.value_or(usual_timeout);
    link.buffer.resize(largest_datagram);
    addrinfo hints{};
    hints.ai_family = AF_INET; // the daemon speaks IPv4
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo *found = nullptr;
    const int problem =
        getaddrinfo(target.host.c_str(), std::to_string(target.port).c_str(), &hints, &found);
    if (problem != 0) {
        fail("cannot find the host " + target.host + ": " + gai_strerror(problem));
        return false;
    }
    link.socket = connected_socket(*found);
    freeaddrinfo(found);
    if (link.socket < 0) {
        fail("cannot reach " + link.name + ": " + strerror(errno));
        return false;
    }
    // Beyond the system's limit as root; a smaller buffer does for anybody else.
    if (setsockopt(link.socket, SOL_SOCKET, SO_RCVBUFFORCE, &receive_buffer,
                   sizeof receive_buffer) != 0) {
        setsockopt(link.socket, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    }
    return true;
}

void keep_registered(Link &link, Registration registration) {
    link.registration = registration;
    link.registration_due = Clock::now();
}

void send_payload(const Link &link, std::string_view payload) {
    if (payload.size() > largest_client_payload) {
        fail("not sent: longer than what the daemon reads");
        return;
    }
    const std::string datagram = client_datagram(payload);
    // What does not go out is asked for again, as what gets lost on the way is.
    (void)!send(link.socket, datagram.data(), datagram.size(), 0);
}

static void register_when_due(Link &link) {
    if (link.registration != Registration::none && Clock::now() >= link.registration_due) {
        link.registration_due = after(registration_interval);
        send_payload(link, std::string{ask_register, static_cast<char>(link.registration)});
    }
}

// True: the socket can be read. Waits for longest_wait_ms at most.
static bool wait_readable(Link &link, TimePoint until, bool &is_output_gone) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
    const int wait = static_cast<int>(std::clamp<long long>(left, 0, longest_wait_ms));
    pollfd watched[] = {{link.socket, POLLIN, 0}, {link.output, 0, 0}};
    if (poll(watched, 2, wait) <= 0) {
        return false;
    }
    is_output_gone = (watched[1].revents & (POLLERR | POLLHUP)) != 0;
    return watched[0].revents != 0;
}

static Received read_packet(Link &link, PacketView &packet) {
    const ssize_t length = recv(link.socket, link.buffer.data(), link.buffer.size(), MSG_DONTWAIT);
    if (length < 0) {
        if (errno != ECONNREFUSED) {
            return Received::timed_out;
        }
        link.registration_due = std::min(link.registration_due, after(retry_interval));
        return Received::refused;
    }
    const auto parsed = parse_packet({link.buffer.data(), static_cast<size_t>(length)});
    if (!parsed) {
        return Received::timed_out;
    }
    packet = *parsed;
    return Received::packet;
}

Received receive(Link &link, PacketView &packet, TimePoint deadline) {
    while (!stop_requested()) {
        register_when_due(link);
        const bool is_registered = link.registration != Registration::none;
        const TimePoint until =
            is_registered ? std::min(deadline, link.registration_due) : deadline;
        bool is_output_gone = false;
        if (wait_readable(link, until, is_output_gone)) {
            const Received received = read_packet(link, packet);
            if (received != Received::timed_out) {
                return received;
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

void pass_over_packets(Link &link, TimePoint deadline) {
    PacketView packet{};
    while (receive(link, packet, deadline) == Received::packet) {
    }
}

Received next_status(Link &link, StatusRecord &record, TimePoint deadline) {
    PacketView packet{};
    Received received = Received::packet;
    while ((received = receive(link, packet, deadline)) == Received::packet) {
        if (is_status(packet)) {
            record = *parse_status(packet.payload);
            break;
        }
    }
    return received;
}

Outcome request(Link &link, std::string_view payload, double seconds, int tries,
                const std::function<bool(const PacketView &)> &take) {
    for (int i = 0; i < tries; ++i) {
        send_payload(link, payload);
        const TimePoint deadline = after(seconds / tries);
        PacketView packet{};
        Received received = Received::packet;
        while ((received = receive(link, packet, deadline)) == Received::packet) {
            if (take(packet)) {
                return Outcome::answered;
            }
        }
        if (received == Received::refused) {
            return Outcome::refused;
        }
        if (received != Received::timed_out) {
            return Outcome::stopped;
        }
    }
    return Outcome::silent;
}

Outcome ask_board(Link &link, BoardInfo &info) {
    return request(link, std::string(1, ask_info), link.timeout, 5, [&](const PacketView &packet) {
        const auto parsed = parse_info(packet);
        info = parsed.value_or(info);
        return parsed.has_value();
    });
}

int reach_board(Link &link, const Target &target, BoardInfo &info) {
    return open_link(link, target) ? report_silence(link, ask_board(link, info)) : exit_silent;
}

bool report_full_house(const BoardInfo &info) {
    if (info.client_count < most_clients) {
        return false;
    }
    fail("the daemon has ten clients already, and takes no more");
    return true;
}

int report_silence(const Link &link, Outcome outcome) {
    switch (outcome) {
    case Outcome::answered:
        return exit_ok;
    case Outcome::stopped:
        return fail("interrupted");
    case Outcome::refused:
        fail("nothing listens at " + link.name + ": is the daemon running there?");
        return exit_silent;
    case Outcome::silent:
        break;
    }
    char seconds[40];
    snprintf(seconds, sizeof seconds, "%g s", link.timeout);
    fail("no answer from " + link.name + " within " + seconds);
    return exit_silent;
}
