#include "beacon_web/session.h"

#include "beacon_web/live_text.h"

#include <algorithm>
#include <libwebsockets.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

constexpr int longest_unsent = 128 << 10; // bytes that the system may hold back for a browser

void tune_socket(const Session &session) {
    const int socket = lws_get_socket_fd(session.connection);
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(socket, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &longest_unsent, sizeof longest_unsent);
}

void send_text(Session &session, const std::string &text) {
    session.texts.push_back(text);
    if (session.texts.size() > most_texts) {
        session.texts.pop_front();
    }
    lws_callback_on_writable(session.connection);
}

void send_sound(Session &session, const std::shared_ptr<const std::string> &piece) {
    add_sound(session.sound, piece);
    lws_callback_on_writable(session.connection);
}

void begin_live(Server &server, Session &session) {
    session.is_live = true;
    session.viewing = {};
    server.live.insert(&session);
    server.console.viewers = static_cast<int>(server.live.size());
    tune_socket(session);
    send_text(session, console_text(!server.console.login.password.empty()));
    send_text(session, board_text(server.console.view, Clock::now()));
}

void end_session(Server &server, Session &session) {
    server.waiting.erase(&session);
    drop_piece(session);
    server.live.erase(&session);
    server.streams.erase(&session);
    server.console.jpeg_viewers = static_cast<int>(server.streams.size());
    server.console.viewers = static_cast<int>(server.live.size());
    forget_viewer(server.console, &session);
}

static bool write_message(Session &session, std::string &buffer, lws_write_protocol kind) {
    auto *begin = reinterpret_cast<unsigned char *>(buffer.data()) + LWS_PRE;
    const bool is_written =
        lws_write(session.connection, begin, buffer.size() - LWS_PRE, kind) >= 0;
    lws_callback_on_writable(session.connection);
    return is_written;
}

static bool write_text(Session &session, const std::string &text) {
    std::string buffer = std::string(LWS_PRE, '\0') + text;
    return write_message(session, buffer, LWS_WRITE_TEXT);
}

// The stream that the next picture is of is new to the browser: says how it is coded, and the next
// time sends what a player has to have before the picture.
static bool write_start(Session &session, const std::shared_ptr<const MovieStart> &start) {
    if (session.told != start) {
        session.told = start;
        return write_text(session, video_text(*start));
    }
    session.viewing.start = start;
    std::string buffer = std::string(LWS_PRE, '\0') + start->header;
    return write_message(session, buffer, LWS_WRITE_BINARY);
}

static bool write_picture(Session &session, const Fragment &picture) {
    std::string buffer = std::string(LWS_PRE, '\0') + *picture.data;
    pass_picture(session.viewing, picture, reinterpret_cast<uint8_t *>(buffer.data()) + LWS_PRE);
    return write_message(session, buffer, LWS_WRITE_BINARY);
}

// What there is beside pictures: those go first.
static int write_sound(Session &session) {
    const auto piece = next_sound(session.sound);
    if (!piece) {
        return 0;
    }
    std::string buffer = std::string(LWS_PRE, '\0') + *piece;
    return write_message(session, buffer, LWS_WRITE_BINARY) ? 0 : -1;
}

int write_live(Server &server, Session &session) {
    if (!session.texts.empty()) {
        const std::string text = std::move(session.texts.front());
        session.texts.pop_front();
        return write_text(session, text) ? 0 : -1;
    }
    const Fragment *picture = next_picture(server.console.ring, session.viewing);
    if (picture == nullptr) {
        return write_sound(session);
    }
    const bool is_written = session.viewing.start == picture->start
                                ? write_picture(session, *picture)
                                : write_start(session, picture->start);
    return is_written ? 0 : -1;
}

int take_live_message(Server &server, Session &session, const char *bytes, size_t size,
                      bool is_whole) {
    if (!is_whole || size > largest_message) {
        return -1;
    }
    const std::string_view message(bytes, size);
    if (const auto is_wanted = parse_sound_wish(message)) {
        want_sound(session.sound, *is_wanted);
    }
    take_page_message(server.console, &session, message, Clock::now());
    return 0;
}
