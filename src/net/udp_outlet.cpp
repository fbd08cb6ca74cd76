#include "net/udp_outlet.h"

#include "base/pause.h"
#include "net/drop_report.h"
#include "net/send_socket.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <numeric>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

constexpr int64_t most_wait_ns = 3'000'000; // maximum wait of a round or a single datagram
constexpr uint32_t room_poll_us = 200;
constexpr int64_t room_poll_ns = room_poll_us * 1000;
constexpr int64_t review_ns = 100'000'000;
constexpr int64_t lane_hold_ns = 2'000'000'000;
// The buffers of all lanes together: 800 datagrams of video, less than the 1000 that a network
// card's queue holds by default. What overflows that queue is lost silently.
constexpr int room_of_all_lanes = 800 * 2304;
constexpr int most_room_of_lane = 425984; // the kernel's default limit
constexpr int room_of_spare = 20000000;   // as for the endpoint's own socket

// A round being sent.
struct Round {
    RoundReceivers &receivers;
    int64_t waited_ns; // for room, so far
};

void udp_outlet_open(UdpOutlet &outlet, UdpEndpoint &endpoint) {
    outlet.shared.store(endpoint.socket, std::memory_order_relaxed);
    outlet.endpoint.store(&endpoint, std::memory_order_release);
}

bool udp_outlet_is_open(const UdpOutlet &outlet) {
    return outlet.endpoint.load(std::memory_order_acquire) != nullptr;
}

static uint16_t port_of(const UdpEndpoint &endpoint) {
    return static_cast<uint16_t>(endpoint.local_port);
}

// The system call itself: the library's function is a point where a thread may be cancelled, which
// is a third of the instructions of a round. No thread is cancelled here.
static int send_messages(int socket, mmsghdr *messages, int count) {
    return static_cast<int>(syscall(SYS_sendmmsg, socket, messages, count, MSG_DONTWAIT));
}

// Large datagrams that do not fit fail with ENOBUFS.
static bool is_no_room(int error) {
    return error == EAGAIN || error == ENOBUFS;
}

static void prepare_message(msghdr &message, sockaddr_in &address, Datagram &datagram,
                            Ipv4Port destination) {
    address = socket_address(destination);
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_iov = datagram.parts;
    message.msg_iovlen = std::size(datagram.parts);
    message.msg_control = nullptr;
    message.msg_controllen = 0;
    message.msg_flags = 0;
}

void prepare_receivers(RoundReceivers &receivers, const Ipv4Port *destinations, int count) {
    receivers.count = count;
    for (int i = 0; i < count; ++i) {
        receivers.destinations[i] = destinations[i];
        prepare_message(receivers.messages[i].msg_hdr, receivers.addresses[i], receivers.datagram,
                        destinations[i]);
    }
}

// Lanes.

static Lane *find_lane(UdpOutlet &outlet, Ipv4Port destination) {
    if (outlet.lanes_used == 0) {
        return nullptr;
    }
    for (Lane &lane : outlet.lanes) {
        if (lane.destination.load(std::memory_order_acquire) == destination) {
            return &lane;
        }
    }
    return nullptr;
}

// A free lane, or the one whose destination has not been used for the longest time.
static Lane &lane_to_take(UdpOutlet &outlet) {
    Lane *best = &outlet.lanes[0];
    for (Lane &lane : outlet.lanes) {
        if (lane.destination.load(std::memory_order_relaxed) == 0) {
            return lane;
        }
        if (lane.last_round_ns < best->last_round_ns) {
            best = &lane;
        }
    }
    return *best;
}

// Empties the buffer of a lane's socket or of the spare one, by opening a new socket. Returns false
// when that fails.
static bool refresh(const UdpOutlet &outlet, int &socket, int room) {
    const UdpEndpoint &endpoint = *outlet.endpoint.load(std::memory_order_relaxed);
    if (socket < 0) {
        socket = open_send_socket(endpoint.socket, port_of(endpoint), room);
        return socket >= 0;
    }
    return renew_send_socket(socket, endpoint.socket, port_of(endpoint), room);
}

static void give_lane(UdpOutlet &outlet, Ipv4Port destination, int room, int64_t now) {
    if (find_lane(outlet, destination) != nullptr) {
        return;
    }
    Lane &lane = lane_to_take(outlet);
    int socket = lane.socket;
    if (!refresh(outlet, socket, room)) {
        return; // out of descriptors: it keeps sharing a socket
    }
    const bool was_free = lane.destination.load(std::memory_order_relaxed) == 0;
    lane.socket = socket;
    lane.is_full = false;
    lane.patience = {};
    lane.room = room_of(socket);
    lane.short_ns = now;
    lane.last_round_ns = now;
    lane.destination.store(destination, std::memory_order_release);
    outlet.lanes_used.add(was_free ? 1 : 0);
}

// Gives each destination of the round its own lane, when the shared socket stays full: then only
// the slow receiver's lane fills up.
static void part_ways(UdpOutlet &outlet, const RoundReceivers &receivers) {
    const int room = std::min(most_room_of_lane, room_of_all_lanes / receivers.count);
    const int64_t now = monotonic_ns();
    for (int i = 0; i < receivers.count; ++i) {
        give_lane(outlet, receivers.destinations[i], room, now);
    }
    if (refresh(outlet, outlet.spare, room_of_spare)) {
        outlet.shared.store(outlet.spare, std::memory_order_release);
    }
}

static void review_lane(UdpOutlet &outlet, Lane &lane, int64_t now) {
    const int under_way = bytes_under_way(lane.socket);
    if (under_way < lane.room / 2) {
        lane.is_full = false;
    }
    if (under_way < lane.room / 4 && now - lane.short_ns >= lane_hold_ns) {
        lane.destination.store(0, std::memory_order_relaxed);
        outlet.lanes_used.add(-1);
    }
}

// Ends lanes that are no longer needed, and returns from the spare socket to the endpoint's own.
static void review(UdpOutlet &outlet, const UdpEndpoint &endpoint, int64_t now) {
    if (now < outlet.next_review_ns) {
        return;
    }
    outlet.next_review_ns = now + review_ns;
    for (Lane &lane : outlet.lanes) {
        if (lane.destination.load(std::memory_order_relaxed) != 0) {
            review_lane(outlet, lane, now);
        }
    }
    if (bytes_under_way(endpoint.socket) == 0) {
        outlet.shared.store(endpoint.socket, std::memory_order_relaxed);
    }
}

// Rounds.

// Waits a little for buffer space. Returns false, without waiting, when the patience is used up.
static bool wait_for_room(Patience &patience, Round &round) {
    const int64_t start = monotonic_ns();
    if (round.waited_ns >= most_wait_ns || patience_left_ns(patience, start) < room_poll_ns) {
        return false;
    }
    sleep_us(room_poll_us);
    const int64_t took = monotonic_ns() - start;
    use_patience(patience, start, took);
    round.waited_ns += took;
    return true;
}

// Sends the datagram to the receiver with that number through its lane. False when it has none.
static bool send_through_lane(UdpOutlet &outlet, Round &round, int number) {
    const Ipv4Port destination = round.receivers.destinations[number];
    Lane *lane = find_lane(outlet, destination);
    if (lane == nullptr) {
        return false;
    }
    msghdr message = round.receivers.messages[number].msg_hdr;
    leave_source_open(message);
    lane->last_round_ns = monotonic_ns();
    while (sendmsg(lane->socket, &message, MSG_DONTWAIT) < 0 && is_no_room(errno)) {
        lane->short_ns = lane->last_round_ns;
        if (lane->is_full || !wait_for_room(lane->patience, round)) {
            lane->is_full = true;
            count_drop(destination);
            break;
        }
    }
    return true;
}

// Sends `messages` through the shared socket. Returns how many are done with, less than `count`
// when there is no room for the next.
static int send_shared(UdpOutlet &outlet, Round &round, mmsghdr *messages, int count) {
    const int socket = outlet.shared.load(std::memory_order_relaxed);
    int done = 0;
    while (done < count) {
        const int sent = send_messages(socket, messages + done, count - done);
        if (sent > 0) {
            done += sent;
        } else if (!is_no_room(errno)) {
            done += errno == EINTR ? 0 : 1; // skip a destination that cannot be reached
        } else if (!wait_for_room(outlet.patience, round)) {
            break;
        }
    }
    return done;
}

// Prepares the messages for destinations that share a socket and returns their number. `numbers`
// gets the indexes of the destinations.
static void send_rest(UdpOutlet &outlet, Round &round, const int *numbers, int count) {
    part_ways(outlet, round.receivers);
    for (int i = 0; i < count; ++i) {
        if (!send_through_lane(outlet, round, numbers[i])) {
            count_drop(round.receivers.destinations[numbers[i]]);
        }
    }
}

// A round while some receivers have lanes or the endpoint's own socket is not the shared one.
static void send_beside_lanes(UdpOutlet &outlet, const UdpEndpoint &endpoint, Round &round) {
    const bool is_spare = outlet.shared.load(std::memory_order_relaxed) != endpoint.socket;
    mmsghdr messages[outlet_round_limit];
    int numbers[outlet_round_limit]; // of the receivers that these go to
    int count = 0;
    for (int i = 0; i < round.receivers.count; ++i) {
        if (find_lane(outlet, round.receivers.destinations[i]) == nullptr) {
            messages[count] = round.receivers.messages[i];
            if (is_spare) {
                leave_source_open(messages[count].msg_hdr);
            }
            numbers[count++] = i;
        }
    }
    const int done = send_shared(outlet, round, messages, count);
    for (int i = 0; i < round.receivers.count; ++i) {
        send_through_lane(outlet, round, i);
    }
    if (done < count) {
        send_rest(outlet, round, numbers + done, count - done);
    }
}

// Goes on with a round of which `done` are sent.
static void send_others(UdpOutlet &outlet, Round &round, int done) {
    const int count = round.receivers.count;
    done += send_shared(outlet, round, round.receivers.messages + done, count - done);
    if (done < count) {
        int numbers[outlet_round_limit];
        std::iota(numbers, numbers + count, 0);
        send_rest(outlet, round, numbers + done, count - done);
    }
}

static bool has_troubles(const UdpOutlet &outlet, const UdpEndpoint &endpoint) {
    return outlet.lanes_used != 0 ||
           outlet.shared.load(std::memory_order_relaxed) != endpoint.socket;
}

int64_t udp_outlet_wait(const UdpOutlet &outlet, int64_t now) {
    const int64_t free_at_ns = outlet.free_at_ns.load(std::memory_order_relaxed);
    return now < free_at_ns ? wait_until_ns(free_at_ns) : now;
}

static uint32_t length_of(const Datagram &datagram) {
    return static_cast<uint32_t>(datagram.parts[0].iov_len + datagram.parts[1].iov_len);
}

void udp_outlet_round(UdpOutlet &outlet, RoundReceivers &receivers, int64_t now) {
    UdpEndpoint *endpoint = outlet.endpoint.load(std::memory_order_acquire);
    if (endpoint == nullptr || receivers.count == 0) {
        return;
    }
    const int64_t start = udp_outlet_wait(outlet, now);
    outlet.free_at_ns.store(start + round_length_ns(receivers.count), std::memory_order_relaxed);
    endpoint->tx_bytes.add(length_of(receivers.datagram) * static_cast<uint32_t>(receivers.count));
    Round round{receivers, 0};
    if (has_troubles(outlet, *endpoint)) {
        review(outlet, *endpoint, start);
        send_beside_lanes(outlet, *endpoint, round);
        return;
    }
    const int sent = send_messages(endpoint->socket, receivers.messages, receivers.count);
    if (sent != receivers.count) {
        send_others(outlet, round, std::max(sent, 0));
    }
}

void udp_outlet_single(UdpOutlet &outlet, const Datagram &datagram, Ipv4Port destination) {
    UdpEndpoint *endpoint = outlet.endpoint.load(std::memory_order_acquire);
    if (endpoint == nullptr) {
        return;
    }
    int64_t now = udp_outlet_wait(outlet, monotonic_ns());
    outlet.free_at_ns.store(now + round_length_ns(1), std::memory_order_relaxed);
    endpoint->tx_bytes.add(length_of(datagram));
    Lane *lane = find_lane(outlet, destination);
    const int socket =
        lane != nullptr ? lane->socket : outlet.shared.load(std::memory_order_acquire);
    Datagram sent = datagram;
    sockaddr_in address;
    msghdr message;
    prepare_message(message, address, sent, destination);
    if (socket != endpoint->socket) {
        leave_source_open(message);
    }
    const int64_t end = now + most_wait_ns;
    while (sendmsg(socket, &message, MSG_DONTWAIT) < 0 && is_no_room(errno)) {
        now = monotonic_ns();
        if (now >= end || (lane != nullptr && lane->is_full)) {
            count_drop(destination);
            return;
        }
        sleep_us(room_poll_us);
    }
}
