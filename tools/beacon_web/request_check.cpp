#include "beacon_web/request_check.h"

#include <algorithm>
#include <arpa/inet.h>

constexpr size_t longest_host = 255;
constexpr size_t longest_path = 1024;

static std::string lower(std::string_view text) {
    std::string result(text);
    for (char &letter : result) {
        if (letter >= 'A' && letter <= 'Z') {
            letter = static_cast<char>(letter - 'A' + 'a');
        }
    }
    return result;
}

std::vector<std::string> allowed_names(std::string_view machine,
                                       std::span<const std::string> more) {
    std::vector<std::string> names{"localhost"};
    if (!machine.empty()) {
        names.push_back(lower(machine));
        names.push_back(lower(machine) + ".local");
    }
    for (const std::string &name : more) {
        names.push_back(lower(name));
    }
    return names;
}

static bool is_port(std::string_view text) {
    return !text.empty() && text.size() <= 5 &&
           text.find_first_not_of("0123456789") == std::string_view::npos;
}

static bool is_address(const std::string &host) {
    in6_addr parsed{}; // large enough for both
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &parsed) == 1;
    }
    return inet_pton(AF_INET, host.c_str(), &parsed) == 1;
}

bool is_allowed_host(std::string_view host, std::span<const std::string> names) {
    const size_t bracket = host.rfind(']');
    const size_t colon = host.rfind(':');
    std::string_view name = host;
    if (colon != std::string_view::npos && (bracket == std::string_view::npos || colon > bracket)) {
        if (!is_port(host.substr(colon + 1))) {
            return false;
        }
        name = host.substr(0, colon);
    }
    if (name.empty() || host.size() > longest_host || name.find('\0') != std::string_view::npos) {
        return false;
    }
    const std::string wanted = lower(name);
    return is_address(wanted) || std::find(names.begin(), names.end(), wanted) != names.end();
}

// Was the request sent by a page of this console?
static bool is_from_here(const RequestHead &head) {
    for (const std::string_view scheme : {"http://", "https://"}) {
        if (head.origin.starts_with(scheme) &&
            lower(std::string_view(head.origin).substr(scheme.size())) == lower(head.host)) {
            return true;
        }
    }
    return false;
}

static bool is_json(std::string_view type) {
    const std::string wanted = lower(type.substr(0, type.find(';')));
    return wanted == "application/json";
}

static int refusal_of_change(const RequestHead &head) {
    if (!is_from_here(head) || head.own_header.empty()) {
        return 403;
    }
    return is_json(head.content_type) ? 0 : 415;
}

bool is_nested_deeply(std::string_view json) {
    constexpr int most_levels = 20;
    int level = 0;
    bool is_text = false;
    for (size_t i = 0; i < json.size() && level <= most_levels; ++i) {
        const char c = json[i];
        if (c == '"') {
            is_text = !is_text;
        } else if (is_text) {
            i += c == '\\' ? 1 : 0;
        } else {
            level += c == '[' || c == '{' ? 1 : 0;
            level -= c == ']' || c == '}' ? 1 : 0;
        }
    }
    return level > most_levels;
}

int refusal_of(const RequestHead &head, std::span<const std::string> names) {
    if (!is_allowed_host(head.host, names)) {
        return 421;
    }
    if (head.path.size() > longest_path) {
        return 414;
    }
    if (head.is_upgrade) {
        return head.path != live_path ? 404 : is_from_here(head) ? 0 : 403;
    }
    if (head.method == "POST" || head.method == "PUT") {
        return refusal_of_change(head);
    }
    return head.method == "GET" || head.method == "HEAD" ? 0 : 405;
}
