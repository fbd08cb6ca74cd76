#include "beacon_web/login.h"

#include <gtest/gtest.h>

namespace {

const TimePoint begin_time = TimePoint(from_seconds(1000));

RequestHead request(std::string path, std::string cookies = "", std::string peer = "10.0.0.1") {
    RequestHead head;
    head.method = "GET";
    head.path = std::move(path);
    head.cookies = std::move(cookies);
    head.peer = std::move(peer);
    return head;
}

Login login_with_password() {
    Login login;
    login.password = "a good password";
    return login;
}

HttpReply tell(Login &login, const std::string &password, TimePoint now,
               const std::string &peer = "10.0.0.1") {
    return answer_login(login, request("/login", "", peer), R"({"password":")" + password + R"("})",
                        now);
}

std::string cookie_of(const HttpReply &reply) {
    for (const auto &[name, value] : reply.headers) {
        if (name == "set-cookie:") {
            return value.substr(0, value.find(';'));
        }
    }
    return "";
}

} // namespace

TEST(Login, ComparesSecrets) {
    EXPECT_TRUE(is_same_secret("secret", "secret"));
    for (const char *told : {"", "s", "secre", "secrets", "secretsecret", "Secret", "secreT"}) {
        EXPECT_FALSE(is_same_secret("secret", told)) << told;
    }
    EXPECT_FALSE(is_same_secret("", ""));
    EXPECT_FALSE(is_same_secret("", "x"));
}

TEST(Login, WithoutAPasswordEverybodyIsIn) {
    Login login;
    EXPECT_EQ(login_refusal(login, request("/api/v1/status"), begin_time).status, 0);
    EXPECT_EQ(tell(login, "", begin_time).status, 404);
}

TEST(Login, ASessionEndsWhenItIsNotUsed) {
    Login login = login_with_password();
    const std::string cookie = cookie_of(tell(login, "a good password", begin_time));
    EXPECT_TRUE(has_session(login, cookie, begin_time + from_seconds(session_seconds - 1)));
    EXPECT_TRUE(has_session(login, "a=1;  " + cookie + ";b=2",
                            begin_time + from_seconds(2 * session_seconds - 2)));
    EXPECT_FALSE(has_session(login, "x" + cookie, begin_time));
    EXPECT_FALSE(has_session(login, cookie, begin_time + from_seconds(3 * session_seconds)));
}

TEST(Login, SessionsAreBounded) {
    Login login = login_with_password();
    const std::string first = cookie_of(tell(login, "a good password", begin_time));
    std::string last;
    for (size_t i = 0; i < most_sessions; ++i) {
        last = cookie_of(tell(login, "a good password", begin_time));
    }
    EXPECT_EQ(login.sessions.size(), most_sessions);
    EXPECT_FALSE(has_session(login, first, begin_time));
    EXPECT_TRUE(has_session(login, last, begin_time));
}

TEST(Login, WrongPasswordsWaitLongerAndLonger) {
    Login login = login_with_password();
    TimePoint now = begin_time;
    for (const double wait : {0.0, 0.0, 1.0, 2.0, 4.0, 8.0, 16.0, 32.0, 60.0, 60.0}) {
        EXPECT_EQ(tell(login, "wrong", now).status, 403);
        EXPECT_EQ(login_wait(login, "10.0.0.1", now), wait);
        if (wait > 0) {
            EXPECT_EQ(tell(login, "a good password", now + from_seconds(wait / 2)).status, 429);
        }
        EXPECT_EQ(login_wait(login, "10.0.0.2", now), 0);
        now += from_seconds(wait);
    }
    EXPECT_EQ(tell(login, "a good password", now).status, 200);
    EXPECT_EQ(tell(login, "wrong", now).status, 403);
    EXPECT_EQ(login_wait(login, "10.0.0.1", now), 0); // it counts from the beginning
}

TEST(Login, CountsOnlySoManyPeers) {
    Login login = login_with_password();
    for (size_t i = 0; i < 3 * most_peers; ++i) {
        tell(login, "wrong", begin_time, std::to_string(i));
    }
    EXPECT_EQ(login.wrong.size(), most_peers);
}

TEST(Login, WhatIsNoPasswordIsNoTry) {
    Login login = login_with_password();
    for (const char *body : {"", "[]", "{}", R"({"password":5})", "\xff"}) {
        EXPECT_EQ(answer_login(login, request("/login"), body, begin_time).status, 422) << body;
    }
    EXPECT_TRUE(login.wrong.empty());
}
