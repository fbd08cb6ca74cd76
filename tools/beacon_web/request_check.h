#pragma once

// Says which requests of browsers are served at all.
// Stands on: nothing else of ours.

#include <span>
#include <string>
#include <string_view>
#include <vector>

// A page of somebody else, open in the same browser, must not reach the board through the console:
// neither under a name of its own that it makes point here, nor by sending requests here.

struct RequestHead {
    std::string method; // GET, HEAD, POST, PUT, another, which is refused
    std::string path;   // without the query
    std::string query;
    std::string host;
    std::string origin;
    std::string content_type;
    std::string own_header; // the value of X-Beacon
    std::string range;
    std::string if_range;
    std::string cookies;
    bool has_basic = false;     // it tells a password by Basic authentication
    std::string basic_password; // that one
    std::string peer;           // the browser's address
    bool is_upgrade = false;    // to a WebSocket
};

constexpr const char *live_path = "/live"; // the one WebSocket

// The names under which the console may be reached, besides IP addresses: localhost, the machine's
// name, the same with ".local", and `more`.
std::vector<std::string> allowed_names(std::string_view machine, std::span<const std::string> more);

// Is a Host header an IP address or one of the names, with a port or without?
bool is_allowed_host(std::string_view host, std::span<const std::string> names);

// Has JSON more than 20 levels? None that is expected has, and each level takes some of the stack.
bool is_nested_deeply(std::string_view json);

// The HTTP status of the refusal; 0: the request may be served.
int refusal_of(const RequestHead &head, std::span<const std::string> names);
