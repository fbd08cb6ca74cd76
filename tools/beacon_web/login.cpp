#include "beacon_web/login.h"

#include "client/answers.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sys/random.h>

constexpr std::string_view cookie_name = "beacon=";
constexpr size_t token_bytes = 32;

// What the login page itself needs, and the question whether the program runs.
constexpr std::string_view open_paths[] = {"/login", "/login.js", "/style.css", "/icon.svg",
                                           "/healthz"};

std::string read_password(const std::string &path, std::string &reason) {
    std::array<char, longest_password + 3> line{};
    FILE *file = fopen(path.c_str(), "re");
    if (file == nullptr) {
        reason = strerror(errno); // NOLINT(concurrency-mt-unsafe): there is one thread yet
        return "";
    }
    const bool is_read = fgets(line.data(), line.size(), file) != nullptr;
    fclose(file);
    std::string password = is_read ? line.data() : "";
    password.resize(std::min(password.size(), password.find_first_of("\r\n")));
    if (password.size() < shortest_password || password.size() > longest_password) {
        reason = "the first line has to be a password of 8 to 200 bytes";
        return "";
    }
    return password;
}

bool is_same_secret(std::string_view secret, std::string_view told) {
    volatile unsigned difference = secret.size() == told.size() && !secret.empty() ? 0 : 1;
    for (size_t i = 0; i < told.size() && !secret.empty(); ++i) {
        const auto one = static_cast<unsigned char>(told[i]);
        const auto two = static_cast<unsigned char>(secret[i % secret.size()]);
        difference = difference | static_cast<unsigned>(one ^ two);
    }
    return difference == 0;
}

// Programs that do not tell a password are asked for it here; so is somebody who opens such an
// address in a browser. The API does not ask: the page uses it, and has a login of its own.
constexpr std::string_view asking_paths[] = {"/metrics", "/snapshot.jpg", "/stream.mjpeg"};

static bool is_asking(std::string_view path) {
    return std::find(std::begin(asking_paths), std::end(asking_paths), path) !=
           std::end(asking_paths);
}

// Here the password may come with the request.
static bool is_for_programs(std::string_view path) {
    return is_asking(path) || path.starts_with("/api/v1/");
}

static const WrongPasswords *wrong_of(const Login &login, std::string_view peer, TimePoint now) {
    for (const WrongPasswords &each : login.wrong) {
        if (each.peer == peer && seconds_between(each.last, now) < forgetting_seconds) {
            return &each;
        }
    }
    return nullptr;
}

double login_wait(const Login &login, std::string_view peer, TimePoint now) {
    const WrongPasswords *wrong = wrong_of(login, peer, now);
    if (wrong == nullptr || wrong->count < free_tries) {
        return 0;
    }
    const double wait = std::min(longest_wait, std::exp2(wrong->count - free_tries));
    return std::max(0.0, wait - seconds_between(wrong->last, now));
}

static void forget_wrong(Login &login, std::string_view peer) {
    std::erase_if(login.wrong, [peer](const WrongPasswords &each) { return each.peer == peer; });
}

static void note_wrong(Login &login, const std::string &peer, TimePoint now) {
    const WrongPasswords *before = wrong_of(login, peer, now);
    const int count = before == nullptr ? 1 : before->count + 1;
    forget_wrong(login, peer);
    login.wrong.push_back({peer, count, now});
    if (login.wrong.size() > most_peers) {
        login.wrong.pop_front();
    }
}

// The value of our cookie in a Cookie header.
static std::string_view token_in(std::string_view cookies) {
    while (!cookies.empty()) {
        const size_t end = std::min(cookies.find(';'), cookies.size());
        std::string_view cookie = cookies.substr(0, end);
        cookies.remove_prefix(std::min(end + 1, cookies.size()));
        cookie.remove_prefix(std::min(cookie.find_first_not_of(' '), cookie.size()));
        if (cookie.starts_with(cookie_name)) {
            return cookie.substr(cookie_name.size());
        }
    }
    return "";
}

static void drop_old_sessions(Login &login, TimePoint now) {
    std::erase_if(login.sessions, [now](const LoginSession &session) {
        return seconds_between(session.used, now) > session_seconds;
    });
}

bool has_session(Login &login, std::string_view cookies, TimePoint now) {
    drop_old_sessions(login, now);
    const std::string_view token = token_in(cookies);
    bool is_found = false;
    for (LoginSession &session : login.sessions) {
        if (is_same_secret(session.token, token)) {
            session.used = now;
            is_found = true;
        }
    }
    return is_found;
}

static HttpReply wait_reply(double wait) {
    const std::string seconds = std::to_string(static_cast<int>(std::ceil(wait)));
    HttpReply reply = error_reply(429, "too many wrong passwords: try again in " + seconds + " s");
    reply.headers.emplace_back("retry-after:", seconds);
    return reply;
}

static HttpReply unknown_reply(const RequestHead &head) {
    HttpReply reply = error_reply(401, head.has_basic ? "the password is wrong" : "log in first");
    if (is_asking(head.path) && !head.is_upgrade) {
        reply.headers.emplace_back("www-authenticate:", R"(Basic realm="board", charset="UTF-8")");
    }
    return reply;
}

// Status 0: the password that came with the request is right.
static HttpReply basic_refusal(Login &login, const RequestHead &head, TimePoint now) {
    if (const double wait = login_wait(login, head.peer, now); wait > 0) {
        return wait_reply(wait);
    }
    if (is_same_secret(login.password, head.basic_password)) {
        forget_wrong(login, head.peer);
        return {};
    }
    note_wrong(login, head.peer, now);
    return unknown_reply(head);
}

HttpReply login_refusal(Login &login, const RequestHead &head, TimePoint now) {
    const bool is_open =
        std::find(std::begin(open_paths), std::end(open_paths), head.path) != std::end(open_paths);
    if (login.password.empty() || is_open || has_session(login, head.cookies, now)) {
        return {};
    }
    if (head.has_basic && is_for_programs(head.path) && !head.is_upgrade) {
        return basic_refusal(login, head, now);
    }
    if (head.path != "/" || head.is_upgrade) {
        return unknown_reply(head);
    }
    HttpReply reply = text_reply(303, "Log in at /login.");
    reply.headers.emplace_back("location:", "/login");
    return reply;
}

// Empty: the system has no random numbers.
static std::string new_token() {
    std::array<unsigned char, token_bytes> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        return "";
    }
    std::string token;
    for (const unsigned char byte : bytes) {
        constexpr const char *digits = "0123456789abcdef";
        token += digits[byte >> 4];
        token += digits[byte & 15];
    }
    return token;
}

static void add_cookie(HttpReply &reply, const Login &login, const std::string &token,
                       double seconds) {
    std::string cookie = std::string(cookie_name) + token + "; Path=/; HttpOnly; SameSite=Strict";
    cookie += "; Max-Age=" + std::to_string(static_cast<long>(seconds));
    reply.headers.emplace_back("set-cookie:", cookie + (login.has_tls ? "; Secure" : ""));
}

bool is_still_let_in(Login &login, const RequestHead &head, TimePoint now) {
    return login.password.empty() || has_session(login, head.cookies, now) ||
           (!head.is_upgrade && is_same_secret(login.password, head.basic_password));
}

void renew_cookie(Login &login, const RequestHead &head, HttpReply &reply, TimePoint now) {
    if (has_session(login, head.cookies, now)) {
        add_cookie(reply, login, std::string(token_in(head.cookies)), session_seconds);
    }
}

static HttpReply let_in(Login &login, const std::string &peer, TimePoint now) {
    const std::string token = new_token();
    if (token.empty()) {
        return error_reply(500, "the system has no random numbers");
    }
    forget_wrong(login, peer);
    login.sessions.push_back({token, now});
    if (login.sessions.size() > most_sessions) {
        login.sessions.pop_front();
    }
    HttpReply reply = json_reply(200, "{}");
    add_cookie(reply, login, token, session_seconds);
    return reply;
}

static HttpReply try_password(Login &login, const RequestHead &head, const std::string &body,
                              TimePoint now) {
    if (const double wait = login_wait(login, head.peer, now); wait > 0) {
        return wait_reply(wait);
    }
    const Json told = Json::parse(body, nullptr, false);
    const Json password = told.is_object() ? told.value("password", Json()) : Json();
    if (!password.is_string()) {
        return error_reply(422, "\"password\" has to be a text");
    }
    if (is_same_secret(login.password, password.get<std::string>())) {
        return let_in(login, head.peer, now);
    }
    note_wrong(login, head.peer, now);
    return error_reply(403, "the password is wrong");
}

HttpReply answer_login(Login &login, const RequestHead &head, const std::string &body,
                       TimePoint now) {
    if (login.password.empty()) {
        return error_reply(404, "this console has no password");
    }
    if (head.path == "/login") {
        return try_password(login, head, body, now);
    }
    const std::string token(token_in(head.cookies));
    std::erase_if(login.sessions, [&token](const LoginSession &session) {
        return is_same_secret(session.token, token);
    });
    HttpReply reply = json_reply(200, "{}");
    add_cookie(reply, login, "", 0);
    return reply;
}
