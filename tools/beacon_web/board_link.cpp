#include "beacon_web/board_link.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

constexpr double retry_seconds = 5.0;
constexpr double longest_silence = 10.0;       // seconds until the link is opened anew
constexpr double longest_silence_named = 30.0; // the same where a name has to be looked up
constexpr int most_packets_at_once = 400;      // then the browsers get their turn

bool begin_board_link(BoardLink &board, const std::string &host, uint16_t port, BoardView &view) {
    board.host = host;
    board.port = port;
    view.address = host + ":" + std::to_string(port);
    board.readable = epoll_create1(EPOLL_CLOEXEC);
    return board.readable >= 0;
}

// What this machine sends to one of its own addresses comes from that address.
static bool is_to_itself(int socket) {
    sockaddr_in own{};
    sockaddr_in peer{};
    socklen_t own_size = sizeof own;
    socklen_t peer_size = sizeof peer;
    return getsockname(socket, reinterpret_cast<sockaddr *>(&own), &own_size) == 0 &&
           getpeername(socket, reinterpret_cast<sockaddr *>(&peer), &peer_size) == 0 &&
           own.sin_addr.s_addr == peer.sin_addr.s_addr;
}

static void open_board_link(BoardLink &board, BoardView &view, TimePoint now) {
    const OpenOutcome outcome = open_link(board.link, board.host, board.port);
    view.problem = outcome.reason;
    view.is_here = outcome.result == Opened::opened && is_to_itself(board.link.socket);
    if (outcome.result != Opened::opened) {
        board.retry = now + from_seconds(retry_seconds);
        return;
    }
    epoll_event event{};
    event.events = EPOLLIN;
    epoll_ctl(board.readable, EPOLL_CTL_ADD, board.link.socket, &event);
    register_for(board.link.registration, Streams::everything, now);
    board.heard = now;
}

// The socket has the addresses of both sides as they were when it was opened.
static bool is_stale(const BoardLink &board, TimePoint now) {
    in_addr address{};
    const bool is_address = inet_pton(AF_INET, board.host.c_str(), &address) == 1;
    return seconds_between(board.heard, now) >
           (is_address ? longest_silence : longest_silence_named);
}

void step_board_link(BoardLink &board, BoardView &view, TimePoint now) {
    if (board.link.socket < 0 ? now >= board.retry : is_stale(board, now)) {
        open_board_link(board, view, now);
    }
    if (board.link.socket >= 0) {
        step_link(board.link, now);
    }
}

void read_board_link(BoardLink &board, BoardView &view,
                     const std::function<void(const PacketView &)> &take) {
    PacketView packet{};
    for (int i = 0; i < most_packets_at_once && board.link.socket >= 0; ++i) {
        const TimePoint now = Clock::now();
        switch (read_packet(board.link, packet, now)) {
        case ReadResult::packet:
            board.heard = now;
            note_packet(view, packet, now);
            take(packet);
            break;
        case ReadResult::refused:
            board.heard = now; // the machine is there
            note_refused(view);
            break;
        case ReadResult::other:
            break;
        case ReadResult::nothing:
            return;
        }
    }
}
