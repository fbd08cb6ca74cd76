#pragma once

// What is sent back for a request.
// Stands on: beacon_web/page_files.

#include "beacon_web/page_files.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct OpenFile;

struct HttpReply {
    int status = 0;   // 0: not known yet
    uint64_t job = 0; // then the number of the job that will tell
    std::string type;
    bool is_picture_stream = false;        // is the body: JPEGs, one after the other
    const char *embedders = "same-origin"; // whose pages may show it: Cross-Origin-Resource-Policy
    std::string body;
    const PageFile *page = nullptr; // is the body, if not null
    std::shared_ptr<OpenFile> file; // or these bytes of it are
    uint64_t file_first = 0;
    uint64_t file_size = 0;
    std::vector<std::pair<std::string, std::string>> headers; // more of them; names with a colon
};

// The headers of every reply: what the page may load, and from where.
using FixedHeader = std::pair<const char *, const char *>; // the name with a colon
std::span<const FixedHeader> fixed_headers();

HttpReply text_reply(int status, std::string text); // plain, with a line end added
HttpReply json_reply(int status, std::string json);

// A problem as JSON: {"error": text}.
HttpReply error_reply(int status, std::string_view text);

// In words, for a refusal of client checks: "Forbidden" and so on.
std::string_view status_words_of(int status);

// The page's file under a path; "/" is the page itself. Status 404 when there is none.

HttpReply page_reply(std::string_view path);
