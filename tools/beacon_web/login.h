#pragma once

// Lets in who knows the password.
// Stands on: beacon_web/http_reply, beacon_web/request_check, client/answers, client/clock.

#include "beacon_web/http_reply.h"
#include "beacon_web/request_check.h"
#include "client/clock.h"

#include <deque>
#include <string>

// A browser that told the password gets a cookie with a random number. It is good for as long as it
// is used, until the program ends. Programs may tell the password with each request instead, by
// Basic authentication. Whoever tells wrong ones has to wait longer and longer.

struct LoginSession {
    std::string token;
    TimePoint used{}; // the last time
};

struct WrongPasswords {
    std::string peer; // an address
    int count = 0;
    TimePoint last{};
};

struct Login {
    std::string password;              // empty: everybody is let in
    bool has_tls = false;              // browsers come over TLS
    std::deque<LoginSession> sessions; // the newest last
    std::deque<WrongPasswords> wrong;  // the newest last
};

constexpr size_t shortest_password = 8;
constexpr size_t longest_password = 200;
constexpr size_t most_sessions = 50;             // the oldest is dropped
constexpr double session_seconds = 7 * 86400.0;  // without a request
constexpr size_t most_peers = 100;               // whose wrong passwords are counted
constexpr int free_tries = 3;                    // wrong passwords before the first wait
constexpr double longest_wait = 60.0;            // seconds
constexpr double forgetting_seconds = 15 * 60.0; // after which wrong passwords are forgotten

// Reads the first line of a file. Empty, with the reason in words: that is no password.
std::string read_password(const std::string &path, std::string &reason);

// Is it the same text? How long this takes says nothing about where they differ.
bool is_same_secret(std::string_view secret, std::string_view told);

// Seconds that a peer has to wait before its next try; 0: it may try.
double login_wait(const Login &login, std::string_view peer, TimePoint now);

// Does the value of the Cookie header belong to a session? It is prolonged.
bool has_session(Login &login, std::string_view cookies, TimePoint now);

// May what began with this request, which was let in, go on? A session that it belongs to is
// prolonged.
bool is_still_let_in(Login &login, const RequestHead &head, TimePoint now);

// Has the browser keep the cookie of the request's session, if there is one, as long as the session
// is good from now on.
void renew_cookie(Login &login, const RequestHead &head, HttpReply &reply, TimePoint now);

// What is sent to somebody who has to log in first; status 0: the request may be served.
HttpReply login_refusal(Login &login, const RequestHead &head, TimePoint now);

// Answers POST /login and POST /logout.
HttpReply answer_login(Login &login, const RequestHead &head, const std::string &body,
                       TimePoint now);
