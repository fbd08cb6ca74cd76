#include "beacon_web/http_reply.h"

#include <cstdio>

// A type without no-store is kept by browsers, which then mix the files of two versions.
constexpr FixedHeader headers[] = {
    {"content-security-policy:",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
     "media-src 'self' blob:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
    {"x-content-type-options:", "nosniff"},
    {"referrer-policy:", "no-referrer"},
    {"cache-control:", "no-store"},
};

std::span<const FixedHeader> fixed_headers() {
    return headers;
}

HttpReply text_reply(int status, std::string text) {
    HttpReply reply;
    reply.status = status;
    reply.type = "text/plain; charset=utf-8";
    reply.body = std::move(text) + "\n";
    return reply;
}

HttpReply json_reply(int status, std::string json) {
    HttpReply reply;
    reply.status = status;
    reply.type = "application/json";
    reply.body = std::move(json) + "\n";
    return reply;
}

HttpReply error_reply(int status, std::string_view text) {
    std::string quoted;
    for (const char letter : text) {
        if (letter == '"' || letter == '\\') {
            quoted += '\\';
        }
        quoted += static_cast<unsigned char>(letter) < ' ' ? ' ' : letter;
    }
    return json_reply(status, R"({"error":")" + quoted + R"("})");
}

std::string_view status_words_of(int status) {
    switch (status) {
    case 403:
        return "this request did not come from the console's own page";
    case 404:
        return "there is nothing here";
    case 405:
        return "only GET, HEAD, POST and PUT are served";
    case 413:
        return "the request is too long";
    case 414:
        return "the address is too long";
    case 415:
        return "the content has to be application/json";
    case 421:
        return "this name is not the console's; --allow-host adds a name";
    default:
        return "this cannot be done";
    }
}

HttpReply page_reply(std::string_view path) {
    const std::string_view name = path == "/"        ? "/index.html"
                                  : path == "/login" ? "/login.html"
                                                     : path;
    for (const PageFile &file : page_files()) {
        if (name == file.path) {
            HttpReply reply;
            reply.status = 200;
            reply.type = file.type;
            reply.page = &file;
            reply.headers.emplace_back("content-encoding:", "gzip");
            return reply;
        }
    }
    return error_reply(404, status_words_of(404));
}
