#include "beacon_web/session.h"

#include "beacon_web/file_worker.h"
#include "beacon_web/recordings.h"

#include <algorithm>
#include <libwebsockets.h>
#include <strings.h>
#include <unistd.h>
#include <utility>

constexpr size_t piece_size = 32 << 10; // bytes that are written at once
constexpr size_t file_piece_size = 128 << 10;
constexpr int longest_pause = 60; // seconds that a browser may take none of a file
constexpr int longest_job = 120;  // seconds; others may be before it
constexpr size_t headers_size = 2048;
constexpr size_t longest_heard = 4 << 20; // bytes of a request that is too long

static std::string header(lws *connection, lws_token_indexes token) {
    const int length = lws_hdr_total_length(connection, token);
    if (length <= 0) {
        return "";
    }
    std::string value(static_cast<size_t>(length) + 1, '\0');
    const int copied = lws_hdr_copy(connection, value.data(), length + 1, token);
    value.resize(copied > 0 ? static_cast<size_t>(copied) : 0);
    return value;
}

static std::string own_header(lws *connection) {
    constexpr const char name[] = "x-beacon:";
    char value[32] = "";
    const int copied = lws_hdr_custom_copy(connection, value, sizeof value, name, sizeof name - 1);
    return copied > 0 ? value : "";
}

static std::string method_of(lws *connection) {
    constexpr std::pair<lws_token_indexes, const char *> methods[] = {
        {WSI_TOKEN_GET_URI, "GET"},
        {WSI_TOKEN_HEAD_URI, "HEAD"},
        {WSI_TOKEN_POST_URI, "POST"},
        {WSI_TOKEN_PUT_URI, "PUT"},
    };
    for (const auto &[token, name] : methods) {
        if (lws_hdr_total_length(connection, token) > 0) {
            return name;
        }
    }
    return "";
}

constexpr size_t longest_basic = 512; // bytes of a name and a password, with Base64

// Fills in what is told by Basic authentication. The name may be any.
static void add_basic(lws *connection, RequestHead &head) {
    constexpr std::string_view scheme = "basic ";
    const std::string told = header(connection, WSI_TOKEN_HTTP_AUTHORIZATION);
    head.has_basic = strncasecmp(told.c_str(), scheme.data(), scheme.size()) == 0;
    if (!head.has_basic || told.size() > longest_basic) {
        return;
    }
    char both[longest_basic] = "";
    const int size =
        lws_b64_decode_string_len(told.c_str() + scheme.size(),
                                  static_cast<int>(told.size() - scheme.size()), both, sizeof both);
    const std::string_view text(both, size > 0 ? static_cast<size_t>(size) : 0);
    const size_t colon = text.find(':');
    head.basic_password = colon == std::string_view::npos ? "" : text.substr(colon + 1);
}

static std::string query_of(lws *connection) {
    std::string query;
    char part[512];
    for (int i = 0;
         lws_hdr_copy_fragment(connection, part, sizeof part, WSI_TOKEN_HTTP_URI_ARGS, i) > 0;
         ++i) {
        query += (query.empty() ? "" : "&") + std::string(part);
    }
    return query;
}

static RequestHead head_of(lws *connection, std::string_view uri) {
    RequestHead head;
    head.method = method_of(connection);
    head.path = std::string(uri);
    head.query = query_of(connection);
    head.host = header(connection, WSI_TOKEN_HOST);
    head.origin = header(connection, WSI_TOKEN_ORIGIN);
    head.content_type = header(connection, WSI_TOKEN_HTTP_CONTENT_TYPE);
    head.range = header(connection, WSI_TOKEN_HTTP_RANGE);
    head.if_range = header(connection, WSI_TOKEN_HTTP_IF_RANGE);
    head.own_header = own_header(connection);
    head.cookies = header(connection, WSI_TOKEN_HTTP_COOKIE);
    add_basic(connection, head);
    char peer[64] = "";
    lws_get_peer_simple(connection, peer, sizeof peer);
    head.peer = peer;
    return head;
}

static uint64_t content_size(const HttpReply &reply) {
    if (reply.is_picture_stream) {
        return LWS_ILLEGAL_HTTP_CONTENT_LEN;
    }
    if (reply.file) {
        return reply.file_size;
    }
    return reply.page != nullptr ? reply.page->gzip.size() : reply.body.size();
}

// Writes the reply's headers. False: they do not fit, or the connection is gone.
static bool write_headers(const Session &session) {
    unsigned char buffer[LWS_PRE + headers_size];
    unsigned char *begin = buffer + LWS_PRE;
    unsigned char *at = begin;
    unsigned char *end = buffer + sizeof buffer;
    const HttpReply &reply = session.reply;
    if (lws_add_http_common_headers(session.connection, static_cast<unsigned>(reply.status),
                                    reply.type.c_str(), content_size(reply), &at, end) != 0) {
        return false;
    }
    auto headers = reply.headers;
    headers.emplace_back("cross-origin-resource-policy:", reply.embedders);
    for (const auto &[name, value] : headers) {
        if (lws_add_http_header_by_name(session.connection,
                                        reinterpret_cast<const unsigned char *>(name.c_str()),
                                        reinterpret_cast<const unsigned char *>(value.data()),
                                        static_cast<int>(value.size()), &at, end) != 0) {
            return false;
        }
    }
    return lws_finalize_write_http_header(session.connection, begin, &at, end) == 0;
}

void drop_piece(Session &session) {
    if (session.piece) {
        session.piece->session = nullptr;
        session.piece = nullptr;
    }
}

static void fill_piece(FilePiece &piece, const OpenFile &file, uint64_t offset, size_t size) {
    piece.bytes.resize(LWS_PRE + size);
    size_t filled = 0;
    while (filled < size) {
        const ssize_t count = pread(file.fd, piece.bytes.data() + LWS_PRE + filled, size - filled,
                                    static_cast<off_t>(offset + filled));
        if (count <= 0) {
            return; // it has become shorter, or the disk is gone
        }
        filled += static_cast<size_t>(count);
    }
    piece.is_good = true;
}

// Has the worker read what comes next of the file. False: it has too much to do.
static bool read_piece(Session &session) {
    const HttpReply &reply = session.reply;
    const uint64_t offset = reply.file_first + session.sent;
    const auto size =
        static_cast<size_t>(std::min<uint64_t>(reply.file_size - session.sent, file_piece_size));
    const auto piece = std::make_shared<FilePiece>();
    piece->session = &session;
    session.piece = piece;
    return give_file_work([piece, file = reply.file, offset, size]() -> FileResult {
        fill_piece(*piece, *file, offset, size);
        return [piece] {
            piece->has_come = true;
            if (piece->session != nullptr) {
                lws_callback_on_writable(piece->session->connection);
            }
        };
    });
}

// Writes the piece that has come, while the next one is read. The content cannot be told to be
// wrong any more: the connection ends before all of it has come.
static int write_piece(Session &session) {
    if (!session.piece || !session.piece->has_come) {
        return 0;
    }
    const std::shared_ptr<FilePiece> piece = std::move(session.piece);
    const size_t size = piece->bytes.size() - LWS_PRE;
    session.piece = nullptr;
    session.sent += piece->is_good ? size : 0;
    const bool is_last = session.sent == session.reply.file_size;
    if (!piece->is_good || (!is_last && !read_piece(session))) {
        return -1;
    }
    auto *begin = reinterpret_cast<unsigned char *>(piece->bytes.data()) + LWS_PRE;
    if (lws_write(session.connection, begin, size,
                  is_last ? LWS_WRITE_HTTP_FINAL : LWS_WRITE_HTTP) < 0) {
        return -1;
    }
    lws_set_timeout(session.connection, PENDING_TIMEOUT_HTTP_CONTENT, longest_pause);
    if (!is_last) {
        return 0;
    }
    session.reply = {};
    return lws_http_transaction_completed(session.connection) != 0 ? -1 : 0;
}

static int begin_stream(Server &server, Session &session) {
    server.streams.insert(&session);
    server.console.jpeg_viewers = static_cast<int>(server.streams.size());
    session.last_jpeg = 0;
    tune_socket(session);
    lws_set_timeout(session.connection, PENDING_TIMEOUT_HTTP_CONTENT, longest_pause);
    lws_callback_on_writable(session.connection);
    return 0;
}

void wake_streams(Server &server) {
    for (const Session *session : server.streams) {
        lws_callback_on_writable(session->connection);
    }
}

// A browser gets the newest picture as soon as the one before is gone.
static int write_jpeg(const JpegMaker &jpegs, Session &session) {
    if (!jpegs.jpeg || jpegs.number == session.last_jpeg) {
        return 0;
    }
    session.last_jpeg = jpegs.number;
    std::string buffer(LWS_PRE, '\0');
    buffer += "--picture\r\nContent-Type: image/jpeg\r\nContent-Length: " +
              std::to_string(jpegs.jpeg->size()) + "\r\n\r\n" + *jpegs.jpeg + "\r\n";
    auto *begin = reinterpret_cast<unsigned char *>(buffer.data()) + LWS_PRE;
    lws_set_timeout(session.connection, PENDING_TIMEOUT_HTTP_CONTENT, longest_pause);
    return lws_write(session.connection, begin, buffer.size() - LWS_PRE, LWS_WRITE_HTTP) < 0 ? -1
                                                                                             : 0;
}

static int begin_reply(Server &server, Session &session) {
    if (session.reply.is_picture_stream && server.streams.size() >= most_streams) {
        session.reply = error_reply(503, "too many browsers look at this stream");
    }
    session.sent = 0;
    drop_piece(session);
    if (session.reply.status == 0) {
        server.waiting.insert(&session);
        lws_set_timeout(session.connection, PENDING_TIMEOUT_USER_REASON_BASE, longest_job);
        return 0;
    }
    if (!write_headers(session)) {
        return 1;
    }
    if (session.reply.is_picture_stream && session.head.method != "HEAD") {
        return begin_stream(server, session);
    }
    if (session.head.method == "HEAD" || content_size(session.reply) == 0) {
        return lws_http_transaction_completed(session.connection) != 0 ? -1 : 0;
    }
    if (session.reply.file) {
        return read_piece(session) ? 0 : -1;
    }
    lws_callback_on_writable(session.connection);
    return 0;
}

static bool has_body(const Session &session) {
    if (session.head.method != "POST" && session.head.method != "PUT") {
        return false;
    }
    const std::string length = header(session.connection, WSI_TOKEN_HTTP_CONTENT_LENGTH);
    return length.find_first_of("123456789") != std::string::npos;
}

int take_http_request(Server &server, Session &session, std::string_view uri) {
    session.head = head_of(session.connection, uri);
    session.body.clear();
    session.body_size = 0;
    session.reply = {};
    if (const int refusal = refusal_of(session.head, server.console.names)) {
        session.reply = error_reply(refusal, status_words_of(refusal));
    }
    if (session.reply.status == 0) {
        session.reply = login_refusal(server.console.login, session.head, Clock::now());
    }
    if (has_body(session)) {
        return 0; // it comes next
    }
    if (session.reply.status != 0) {
        return begin_reply(server, session);
    }
    session.reply = answer_request(server.console, session.head, "", Clock::now());
    return begin_reply(server, session);
}

int take_http_body(Session &session, const char *bytes, size_t size) {
    session.body_size += size;
    if (session.body_size > largest_body) {
        session.body.clear(); // the rest is read, so that the browser hears why
        return session.body_size > longest_heard ? -1 : 0;
    }
    session.body.append(bytes, size);
    return 0;
}

static HttpReply answer_body(Server &server, const Session &session) {
    if (session.body_size > largest_body) {
        return error_reply(413, status_words_of(413));
    }
    return is_nested_deeply(session.body)
               ? error_reply(400, "the content is nested too deeply")
               : answer_request(server.console, session.head, session.body, Clock::now());
}

int end_http_body(Server &server, Session &session) {
    if (session.reply.status == 0) {
        session.reply = answer_body(server, session);
    }
    return begin_reply(server, session);
}

static const uint8_t *content_at(const HttpReply &reply, uint64_t offset) {
    return reply.page != nullptr ? reply.page->gzip.data() + offset
                                 : reinterpret_cast<const uint8_t *>(reply.body.data()) + offset;
}

void finish_job(Server &server, FinishedJob finished) {
    for (Session *session : server.waiting) {
        if (session->reply.job == finished.id) {
            session->reply = std::move(finished.reply);
            session->is_due = true;
            lws_callback_on_writable(session->connection);
            return;
        }
    }
}

int write_http(Server &server, Session &session) {
    if (session.reply.status == 0) {
        return 0;
    }
    if (std::exchange(session.is_due, false)) {
        server.waiting.erase(&session);
        return begin_reply(server, session);
    }
    if (session.reply.is_picture_stream) {
        return write_jpeg(server.console.jpegs, session);
    }
    if (session.reply.file) {
        return write_piece(session);
    }
    const auto left = static_cast<size_t>(content_size(session.reply) - session.sent);
    const size_t size = std::min(left, piece_size);
    std::string buffer(LWS_PRE, '\0');
    buffer.append(reinterpret_cast<const char *>(content_at(session.reply, session.sent)), size);
    auto *begin = reinterpret_cast<unsigned char *>(buffer.data()) + LWS_PRE;
    const auto mode = size == left ? LWS_WRITE_HTTP_FINAL : LWS_WRITE_HTTP;
    if (lws_write(session.connection, begin, size, mode) < 0) {
        return -1;
    }
    session.sent += size;
    if (size < left) {
        lws_callback_on_writable(session.connection);
        return 0;
    }
    session.reply = {};
    return lws_http_transaction_completed(session.connection) != 0 ? -1 : 0;
}

int check_live_request(Server &server, Session &session) {
    RequestHead &head = session.head;
    head = head_of(session.connection, header(session.connection, WSI_TOKEN_GET_URI));
    head.is_upgrade = true;
    int refusal = refusal_of(head, server.console.names);
    if (refusal == 0) {
        refusal = login_refusal(server.console.login, head, Clock::now()).status;
    }
    if (refusal == 0 && server.live.size() < most_live) {
        return 0;
    }
    const int status = refusal != 0 ? refusal : 503;
    lws_return_http_status(session.connection, static_cast<unsigned>(status), nullptr);
    return 1;
}
