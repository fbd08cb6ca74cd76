#include "beacon_media/address.h"

#include <algorithm>
#include <charconv>
#include <string_view>

constexpr std::string_view after_scheme = "://";

std::string shown_address(const std::string &address) {
    const size_t scheme = address.find(after_scheme);
    if (scheme == std::string::npos) {
        return address;
    }
    const size_t begin = scheme + after_scheme.size();
    const size_t end = std::min(address.find_first_of("/?", begin), address.size());
    const size_t at = address.rfind('@', end);
    const bool has_user = at != std::string::npos && at >= begin;
    const std::string shown =
        has_user ? address.substr(0, begin) + "..." + address.substr(at) : address;
    const size_t query = shown.find('?');
    return query == std::string::npos ? shown : shown.substr(0, query) + "?...";
}

std::string shown_rtmp_address(const std::string &address, const std::string &key) {
    std::string shown = shown_address(address);
    if (!key.empty() || !rtmp_fault(address, key).empty()) {
        return shown;
    }
    const size_t end = shown.find_last_not_of('/', shown.find('?') - 1);
    return shown.substr(0, shown.rfind('/', end) + 1) + "...";
}

// USER:PASSWORD@NAME:PORT, or [2001:db8::1]:PORT
static std::string server_fault(std::string_view server) {
    server.remove_prefix(server.rfind('@') + 1); // 0 if there is none
    const size_t name_end = std::min(server.rfind(']'), server.size());
    const size_t colon = server.find(':', name_end == server.size() ? 0 : name_end);
    if (server.substr(0, colon).empty()) {
        return "there is no server in this address";
    }
    if (colon == std::string_view::npos) {
        return "";
    }
    const std::string_view digits = server.substr(colon + 1);
    const char *end = digits.data() + digits.size();
    uint16_t port = 0;
    const auto [stop, error] = std::from_chars(digits.data(), end, port);
    return error == std::errc() && stop == end && port != 0 ? "" : "its port is no port's number";
}

// rtmp://SERVER/PATH/KEY
std::string rtmp_fault(const std::string &address, const std::string &key) {
    size_t begin = 0;
    for (const std::string_view scheme : {"rtmp://", "rtmps://"}) {
        begin = address.starts_with(scheme) ? scheme.size() : begin;
    }
    if (begin == 0) {
        return "this is no rtmp:// or rtmps:// address";
    }
    const std::string rest = address.substr(begin);
    const size_t slash = std::min(rest.find('/'), rest.size());
    std::string fault = server_fault(std::string_view(rest).substr(0, slash));
    if (!fault.empty()) {
        return fault;
    }
    const size_t path = rest.find_first_not_of('/', slash);
    if (path == std::string::npos) {
        return "there is no path in this address: it should be like rtmp://SERVER/live";
    }
    const size_t end = rest.find('/', path);
    const bool has_own_key =
        end != std::string::npos && rest.find_first_not_of('/', end) != std::string::npos;
    return key.empty() && !has_own_key ? "there is no key for it" : "";
}
