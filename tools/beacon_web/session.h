#pragma once

// One connection of a browser.
// Stands on: beacon_web/console, beacon_web/http_reply, beacon_web/job_queue,
// beacon_web/picture_ring, beacon_web/request_check, beacon_web/sound.

#include "beacon_web/console.h"
#include "beacon_web/http_reply.h"
#include "beacon_web/job_queue.h"
#include "beacon_web/picture_ring.h"
#include "beacon_web/request_check.h"
#include "beacon_web/sound.h"

#include <deque>
#include <memory>
#include <set>
#include <string>

struct lws;

struct Session;

// Some of a file, as the worker reads it.
struct FilePiece {
    std::string bytes;          // after some that the library needs
    bool has_come = false;      // it has been read
    bool is_good = false;       // then: as it should be
    Session *session = nullptr; // that wants it; null: it is gone
};

// The library calls for a connection; all in the one thread.
struct Session {
    lws *connection = nullptr;
    RequestHead head;
    std::string body;                       // of the request
    size_t body_size = 0;                   // bytes that came of it
    HttpReply reply;                        // that is being sent
    bool is_due = false;                    // it was waited for and has come
    uint64_t last_jpeg = 0;                 // that a stream was sent
    uint64_t sent = 0;                      // bytes of its content
    std::shared_ptr<FilePiece> piece;       // of a file, that comes next
    bool is_live = false;                   // a WebSocket
    Viewing viewing;                        // of a live one
    std::shared_ptr<const MovieStart> told; // how the pictures are coded
    std::deque<std::string> texts;          // that it has yet to get
    SoundQueue sound;
};

constexpr size_t most_live = 24;            // WebSockets
constexpr size_t most_streams = 12;         // of JPEGs
constexpr size_t most_texts = 20;           // for one of them; the oldest are dropped
constexpr size_t largest_body = 64 << 10;   // bytes of a request
constexpr size_t largest_message = 1 << 10; // bytes from a WebSocket

struct Server {
    Console console;
    std::set<Session *> live;
    std::set<Session *> waiting; // for a job
    std::set<Session *> streams; // of JPEGs
};

// The connection is gone.
void end_session(Server &server, Session &session);

// Sends the job's reply to whoever waits for it, if it is still there.
void finish_job(Server &server, FinishedJob finished);

// For requests. They return what the library's callback is to return.
int take_http_request(Server &server, Session &session, std::string_view uri);
int take_http_body(Session &session, const char *bytes, size_t size);
int end_http_body(Server &server, Session &session);
int write_http(Server &server, Session &session);

// There is a new JPEG.
void wake_streams(Server &server);

// The file's next piece is not wanted any more.
void drop_piece(Session &session);

// Has what a browser is too slow for wait here, where it can be skipped, and not in the system.
void tune_socket(const Session &session);

// For the WebSocket.
int check_live_request(Server &server, Session &session);
void begin_live(Server &server, Session &session);
int write_live(Server &server, Session &session);
int take_live_message(Server &server, Session &session, const char *bytes, size_t size,
                      bool is_whole);

// Queues a text for the page.
void send_text(Session &session, const std::string &text);

// Queues sound for the page, if it wants any.
void send_sound(Session &session, const std::shared_ptr<const std::string> &piece);
