#include "beacon_media/hub.h"

#include "client/clock.h"
#include "client/link.h"
#include "client/packet.h"
#include "source/complain.h"

#include "net/relay_packet.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

constexpr std::string_view name{"\0quillorbeacon-media", 20}; // in no folder
constexpr uint16_t control_port = 5252;
constexpr double longest_turn = 0.2; // seconds
constexpr double longest_hold = 0.2; // seconds, of what is not urgent
constexpr double patience = 2.0;     // seconds without a helper
// To be woken by each block of a frame would cost more than all else that a helper does.
constexpr useconds_t gathering_us = 1000;
constexpr int most_gatherings = 5;
constexpr size_t most_helpers = 16; // more wait until one of them ends
constexpr int most_waiting = 8;
// Answers and pieces of files may change places with other packets; one that is further behind
// comes from another run of the daemon.
constexpr uint32_t overtaken_limit = 64;

struct Hub {
    int listener = -1;
    std::vector<int> helpers;
    Link link;
    bool has_sequence = false;
    uint32_t sequence = 0;        // the daemon's highest
    std::vector<uint8_t> message; // what is passed on next
    TimePoint passed{};           // when that was done last
    TimePoint used{};             // when a helper was last there
};

static socklen_t hub_address(sockaddr_un &address) {
    address.sun_family = AF_UNIX;
    std::copy(name.begin(), name.end(), address.sun_path);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
}

// The helpers of one user share a hub. Nobody else may hand out pictures to them, nor have the
// memory that a connection takes.
static bool is_ours(int fd) {
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == geteuid();
}

static void add_helper(Hub &hub, int fd) {
    constexpr int room = 8 << 20; // some seconds of video
    // Root may exceed the system's limit; others get what the limit allows.
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof room) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    }
    hub.helpers.push_back(fd);
}

static void take_helpers(Hub &hub) {
    for (int i = 0; i < most_waiting && hub.helpers.size() < most_helpers; ++i) {
        const int fd = accept4(hub.listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            return;
        }
        if (is_ours(fd)) {
            add_helper(hub, fd);
        } else {
            close(fd);
        }
    }
}

// One that has ended, or is so slow that its socket is full, is left; the latter connects again.
static void pass_on(Hub &hub, const void *data, size_t size) {
    std::erase_if(hub.helpers, [&](int fd) {
        if (send(fd, data, size, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
            return false;
        }
        close(fd);
        return true;
    });
}

static void flush(Hub &hub) {
    if (!hub.message.empty()) {
        pass_on(hub, hub.message.data(), hub.message.size());
        hub.message.clear();
    }
}

static void add_packet(Hub &hub, size_t size) {
    if (hub.message.size() + size > largest_hub_message) {
        flush(hub);
    }
    const auto begin = hub.link.buffer.begin();
    hub.message.insert(hub.message.end(), begin, begin + static_cast<std::ptrdiff_t>(size));
}

static void pass_on_gone(Hub &hub) {
    flush(hub);
    pass_on(hub, "", gone_message_size);
    hub.has_sequence = false;
}

// Has the daemon been started again since the last packet? When that took less than the time
// between two registrations, none of them was refused.
static bool is_from_another_run(Hub &hub, uint32_t sequence) {
    constexpr uint32_t half = 1U << 31U; // the numbers wrap
    const uint32_t behind = hub.sequence - sequence;
    if (hub.has_sequence && behind > overtaken_limit && behind < half) {
        return true;
    }
    if (!hub.has_sequence || behind >= half) {
        hub.sequence = sequence;
        hub.has_sequence = true;
    }
    return false;
}

enum class Waiting : uint8_t {
    nothing, // that could not wait for what comes next
    media,
    frame, // of which more is on its way
};

// Reads all that has come, and says what kind of it waits to be passed on.
static Waiting read_daemon(Hub &hub) {
    Waiting waiting = Waiting::nothing;
    PacketView packet{};
    ReadResult result{};
    while ((result = read_packet(hub.link, packet, Clock::now())) != ReadResult::nothing) {
        if (result == ReadResult::packet) {
            if (is_from_another_run(hub, packet.sequence)) {
                pass_on_gone(hub);
            }
            add_packet(hub, relay_header_size + packet.payload.size());
            const PacketKind kind = packet_kind(packet);
            if (kind == PacketKind::video) {
                const bool has_more = packet.payload.size() == relay_video_block_size;
                waiting = has_more ? Waiting::frame : Waiting::media;
            } else if (kind == PacketKind::audio && waiting == Waiting::nothing) {
                waiting = Waiting::media;
            }
        } else if (result == ReadResult::refused) {
            pass_on_gone(hub);
        }
    }
    return waiting;
}

// What comes ten times a second beside the video goes with the next picture: a helper is woken once
// for both.
static void serve(Hub &hub) {
    Waiting waiting = read_daemon(hub);
    for (int i = 0; i < most_gatherings && waiting == Waiting::frame; ++i) {
        usleep(gathering_us);
        const Waiting more = read_daemon(hub);
        waiting = more == Waiting::nothing ? Waiting::media : more;
    }
    if (waiting != Waiting::nothing || seconds_since(hub.passed) > longest_hold) {
        flush(hub);
        hub.passed = Clock::now();
    }
}

// Waits for the daemon or a new helper, until the registration is due.
static void take_turn(Hub &hub) {
    const TimePoint due = std::min(after(longest_turn), step_link(hub.link, Clock::now()));
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now()).count();
    const int listener = hub.helpers.size() < most_helpers ? hub.listener : -1;
    pollfd watched[] = {{hub.link.socket, POLLIN, 0}, {listener, POLLIN, 0}};
    if (poll(watched, 2, static_cast<int>(std::max<long long>(left, 0))) <= 0) {
        flush(hub);
        return;
    }
    if (watched[1].revents != 0) {
        take_helpers(hub);
    }
    if (watched[0].revents != 0) {
        serve(hub);
    }
}

// `listener` or `helper`, one of which is -1.
static void run_hub(int listener, int helper) {
    Hub hub;
    hub.listener = listener;
    if (helper >= 0) {
        add_helper(hub, helper);
    }
    hub.used = Clock::now();
    open_link(hub.link, "127.0.0.1", control_port);
    register_for(hub.link.registration, Streams::everything, Clock::now());
    while (seconds_since(hub.used) < patience) {
        take_turn(hub);
        hub.used = hub.helpers.empty() ? hub.used : Clock::now();
    }
    if (listener >= 0) {
        close(listener);
    }
}

// False: another process was faster.
static bool start_hub() {
    sockaddr_un address{};
    const socklen_t size = hub_address(address);
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (bind(listener, reinterpret_cast<const sockaddr *>(&address), size) != 0 ||
        listen(listener, most_waiting) != 0) {
        close(listener);
        return false;
    }
    std::thread(run_hub, listener, -1).detach();
    return true;
}

// Serves this helper only.
static int start_own_hub() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return -1;
    }
    std::thread(run_hub, -1, ends[1]).detach();
    return ends[0];
}

// A socket that is connected to the hub of that name. -1: errno says why.
static int connect_by_name() {
    sockaddr_un address{};
    const socklen_t size = hub_address(address);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    // Another user's program may never accept a connection.
    const timeval longest{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &longest, sizeof longest);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), size) != 0) {
        const int reason = errno;
        close(fd);
        errno = reason;
        return -1;
    }
    return fd;
}

static void complain_once(const std::string &line) {
    static std::string said;
    if (said != line) {
        complain("%s", line.c_str());
        said = line;
    }
}

int connect_to_hub() {
    // Once more for each process that starts or ends a hub in the same moment.
    constexpr int tries = 50;
    constexpr useconds_t pause_us = 20000;
    for (int i = 0; i < tries; ++i) {
        const int fd = connect_by_name();
        if (fd >= 0 && is_ours(fd)) {
            return fd;
        }
        if (fd >= 0) {
            close(fd);
            break;
        }
        if (errno == EAGAIN) {
            break;
        }
        if (!start_hub()) {
            usleep(pause_us);
        }
    }
    const int fd = start_own_hub();
    complain_once(
        fd >= 0 ? "another user's program is in the way, this helper asks the daemon by itself"
                : std::string("cannot ask the daemon for pictures: ") + strerror(errno));
    return fd;
}
