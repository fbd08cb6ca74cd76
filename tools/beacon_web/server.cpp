#include "beacon_web/server.h"

#include "beacon_web/file_worker.h"
#include "beacon_web/live_text.h"
#include "beacon_web/login.h"
#include "beacon_web/session.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <libwebsockets.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

constexpr int tick_us = 50000;
constexpr int ticks_of_text = 10; // the page hears of the board twice a second

namespace {

struct Loop {
    Server server;
    lws_context *context = nullptr;
    lws_sorted_usec_list_t tick{};
    int ticks = 0;
};

// What the library keeps for each connection, zeroed at first.
struct Kept {
    Session *session;
};

} // namespace

static Loop loop; // NOLINT(cert-err58-cpp): without memory nothing can start
static volatile std::sig_atomic_t is_stopped = 0;

static void stop(int) {
    is_stopped = 1;
}

static void wake_live() {
    for (Session *session : loop.server.live) {
        lws_callback_on_writable(session->connection);
    }
}

static void send_to_all(const std::string &text) {
    for (Session *session : loop.server.live) {
        send_text(*session, text);
    }
}

// Returns whether it brought pictures.
static bool take_packet(const PacketView &packet) {
    Console &console = loop.server.console;
    PacketNews news = take_board_packet(console, packet, Clock::now());
    if (const int event = std::exchange(console.view.menu_event, -1); event >= 0) {
        send_to_all(menu_text(event));
    }
    if (news.sound) {
        for (Session *session : loop.server.live) {
            send_sound(*session, news.sound);
        }
    }
    if (news.finished) {
        finish_job(loop.server, std::move(*news.finished));
    }
    return news.has_pictures;
}

static void send_late_replies() {
    for (FinishedJob &finished : std::exchange(loop.server.console.late_replies, {})) {
        finish_job(loop.server, std::move(finished));
    }
}

static void step_jpeg_streams() {
    if (make_jpegs(loop.server.console, Clock::now())) {
        wake_streams(loop.server);
    }
    send_late_replies();
}

static void read_board() {
    bool has_pictures = false;
    read_board_link(loop.server.console.link, loop.server.console.view,
                    [&has_pictures](const PacketView &packet) {
                        has_pictures = take_packet(packet) || has_pictures;
                    });
    if (has_pictures) {
        wake_live();
    }
    step_jpeg_streams();
}

// Whoever logs out leaves nothing open in the browser's other pages.
static void end_logged_out(TimePoint now) {
    Server &server = loop.server;
    for (const std::set<Session *> *sessions : {&server.live, &server.streams}) {
        for (const Session *session : *sessions) {
            if (!is_still_let_in(server.console.login, session->head, now)) {
                lws_set_timeout(session->connection, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_ASYNC);
            }
        }
    }
}

static void tell_board(TimePoint now) {
    end_logged_out(now);
    if (!loop.server.live.empty()) {
        send_to_all(board_text(loop.server.console.view, now));
    }
}

static void take_tick(lws_sorted_usec_list_t *) {
    const TimePoint now = Clock::now();
    Console &console = loop.server.console;
    for (FinishedJob &finished : step_console(console, now)) {
        finish_job(loop.server, std::move(finished));
    }
    step_jpeg_streams();
    if (++loop.ticks % ticks_of_text == 0) {
        tell_board(now);
    }
    lws_sul_schedule(loop.context, 0, &loop.tick, take_tick, tick_us);
}

// The worker calls this.
static void wake_server() {
    lws_cancel_service(loop.context);
}

static void take_files() {
    take_file_results();
    send_late_replies();
}

static Session *session_of(lws *connection, void *user) {
    auto *kept = static_cast<Kept *>(user);
    if (kept == nullptr) {
        return nullptr;
    }
    if (kept->session == nullptr) {
        kept->session = new Session;
    }
    kept->session->connection = connection;
    return kept->session;
}

static void forget_session(void *user) {
    auto *kept = static_cast<Kept *>(user);
    if (kept != nullptr && kept->session != nullptr) {
        end_session(loop.server, *kept->session);
        delete kept->session;
        kept->session = nullptr;
    }
}

static int take_http_event(lws *connection, lws_callback_reasons reason, Session &session, void *in,
                           size_t size) {
    const auto *bytes = static_cast<const char *>(in);
    switch (reason) {
    case LWS_CALLBACK_HTTP:
        return take_http_request(loop.server, session, {bytes, size});
    case LWS_CALLBACK_HTTP_BODY:
        return take_http_body(session, bytes, size);
    case LWS_CALLBACK_HTTP_BODY_COMPLETION:
        return end_http_body(loop.server, session);
    case LWS_CALLBACK_HTTP_WRITEABLE:
        return write_http(loop.server, session);
    case LWS_CALLBACK_FILTER_PROTOCOL_CONNECTION:
        return check_live_request(loop.server, session);
    case LWS_CALLBACK_ESTABLISHED:
        begin_live(loop.server, session);
        return 0;
    case LWS_CALLBACK_SERVER_WRITEABLE:
        return write_live(loop.server, session);
    case LWS_CALLBACK_RECEIVE:
        return take_live_message(loop.server, session, bytes, size,
                                 lws_is_first_fragment(connection) != 0 &&
                                     lws_is_final_fragment(connection) != 0 &&
                                     lws_remaining_packet_payload(connection) == 0);
    default:
        return lws_callback_http_dummy(connection, reason, nullptr, in, size);
    }
}

static int take_event(lws *connection, lws_callback_reasons reason, void *user, void *in,
                      size_t size) {
    switch (reason) {
    case LWS_CALLBACK_HTTP:
    case LWS_CALLBACK_HTTP_BODY:
    case LWS_CALLBACK_HTTP_BODY_COMPLETION:
    case LWS_CALLBACK_HTTP_WRITEABLE:
    case LWS_CALLBACK_FILTER_PROTOCOL_CONNECTION:
    case LWS_CALLBACK_ESTABLISHED:
    case LWS_CALLBACK_SERVER_WRITEABLE:
    case LWS_CALLBACK_RECEIVE: {
        Session *session = session_of(connection, user);
        return session == nullptr ? -1 : take_http_event(connection, reason, *session, in, size);
    }
    case LWS_CALLBACK_CLOSED:
    case LWS_CALLBACK_CLOSED_HTTP:
    case LWS_CALLBACK_HTTP_DROP_PROTOCOL:
    case LWS_CALLBACK_WS_SERVER_DROP_PROTOCOL:
        forget_session(user);
        return 0;
    case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
        take_files();
        return 0;
    default:
        return lws_callback_http_dummy(connection, reason, user, in, size);
    }
}

static int take_board_event(lws *, lws_callback_reasons reason, void *, void *, size_t) {
    if (reason == LWS_CALLBACK_RAW_RX_FILE) {
        read_board();
    }
    return 0;
}

static const lws_protocols protocols[] = {
    {"http", take_event, sizeof(Kept), largest_message, 0, nullptr, 0},
    {"board", take_board_event, 0, 0, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

// A browser that does not answer for 30 s is gone.
static const lws_retry_bo_t patience = {nullptr, 0, 0, 15, 30, 0};

static lws_protocol_vhost_options *header_options() {
    static std::vector<lws_protocol_vhost_options> options;
    for (const auto &[name, value] : fixed_headers()) {
        options.push_back({nullptr, nullptr, name, value});
    }
    for (size_t i = 1; i < options.size(); ++i) {
        options[i - 1].next = &options[i];
    }
    return options.data();
}

// The library does not tell why it cannot listen. Tries it out; 0, or the reason.
static int listening_problem(const Options &options) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(options.port);
    inet_pton(AF_INET, options.address.c_str(), &address.sin_addr);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const bool is_possible =
        fd >= 0 && bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
        listen(fd, 1) == 0;
    const int reason = is_possible ? 0 : errno;
    close(fd);
    return reason;
}

static bool say_not_listening(const Options &options, const char *reason) {
    fprintf(stderr, "beacon-web: cannot listen at %s:%u: %s\n", options.address.c_str(),
            options.port, reason);
    return false;
}

static bool listen_for_browsers(const Options &options) {
    if (const int reason = listening_problem(options)) {
        return say_not_listening(options, strerror(reason));
    }
    const bool has_tls = !options.certificate.empty();
    lws_context_creation_info info{};
    if (has_tls) {
        info.ssl_cert_filepath = options.certificate.c_str();
        info.ssl_private_key_filepath = options.key.c_str();
    }
    info.port = options.port;
    info.iface = options.address.c_str();
    info.protocols = protocols;
    info.headers = header_options();
    info.retry_and_idle_policy = &patience;
    info.keepalive_timeout = 30;
    info.timeout_secs = 20;
    info.max_http_header_data = 4096;
    info.max_http_header_pool = 32;
    info.fd_limit_per_thread = 160;
    info.options = LWS_SERVER_OPTION_EXPLICIT_VHOSTS | LWS_SERVER_OPTION_FAIL_UPON_UNABLE_TO_BIND |
                   (has_tls ? LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT : 0);
    loop.context = lws_create_context(&info);
    lws_vhost *host = loop.context == nullptr ? nullptr : lws_create_vhost(loop.context, &info);
    if (host == nullptr) {
        return say_not_listening(options, has_tls
                                              ? "the certificate and the key do not work together"
                                              : "the HTTP library refuses");
    }
    lws_sock_file_fd_type board{};
    board.filefd = loop.server.console.link.readable;
    if (lws_adopt_descriptor_vhost(host, LWS_ADOPT_RAW_FILE_DESC, board, "board", nullptr) ==
        nullptr) {
        fprintf(stderr, "beacon-web: the HTTP library does not take the board's socket\n");
        return false;
    }
    printf("The console is at %s://%s:%d/\n", has_tls ? "https" : "http", options.address.c_str(),
           lws_get_vhost_listen_port(host));
    return true;
}

static std::string machine_name() {
    char name[256] = "";
    gethostname(name, sizeof name - 1);
    return name;
}

// What the options name has to be there. False: it has been said.
static bool read_files(const Options &options, Login &login) {
    for (const std::string &path : {options.certificate, options.key}) {
        FILE *file = path.empty() ? nullptr : fopen(path.c_str(), "re");
        if (!path.empty() && file == nullptr) {
            fprintf(stderr, "beacon-web: cannot read %s: %s\n", path.c_str(), strerror(errno));
            return false;
        }
        if (file != nullptr) {
            fclose(file);
        }
    }
    login.has_tls = !options.certificate.empty();
    if (options.password_file.empty()) {
        return true;
    }
    std::string reason;
    login.password = read_password(options.password_file, reason);
    if (login.password.empty()) {
        fprintf(stderr, "beacon-web: no password in %s: %s\n", options.password_file.c_str(),
                reason.c_str());
    }
    return !login.password.empty();
}

int run_server(const Options &options) {
    Console &console = loop.server.console;
    console.has_camera_options = options.has_camera_options;
    if (!read_files(options, console.login)) {
        return 1;
    }
    console.names = allowed_names(machine_name(), options.allowed_hosts);
    if (!begin_board_link(console.link, options.board, options.board_port, console.view)) {
        fprintf(stderr, "beacon-web: no descriptor for the board: %s\n", strerror(errno));
        return 1;
    }
    console.jpegs.readable = console.link.readable;
    signal(SIGPIPE, SIG_IGN);
    signal(SIGINT, stop);
    signal(SIGTERM, stop);
    lws_set_log_level(0, nullptr); // anybody's broken request would be a line
    if (!listen_for_browsers(options)) {
        return 1;
    }
    if (!start_file_worker(wake_server)) {
        fputs("beacon-web: no thread for files\n", stderr);
        return 1;
    }
    take_tick(nullptr);
    while (is_stopped == 0 && lws_service(loop.context, 0) >= 0) {
    }
    close_link(console.link.link);
    return 0;
}
