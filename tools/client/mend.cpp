#include "client/mend.h"

#include <array>
#include <cctype>
#include <charconv>

constexpr const char *replacement = "\xEF\xBF\xBD"; // U+FFFD
constexpr const char *blanks = " \t\r\n";

static unsigned byte_at(std::string_view text, size_t at) {
    return static_cast<unsigned char>(text[at]);
}

// The length of a UTF-8 character that starts with this byte; 0: none does.
static size_t sequence_length(unsigned first) {
    if (first < 0x80) {
        return 1;
    }
    if (first >= 0xC2 && first < 0xE0) {
        return 2;
    }
    if (first >= 0xE0 && first < 0xF0) {
        return 3;
    }
    return first >= 0xF0 && first < 0xF5 ? 4 : 0;
}

// The length of the valid character at `at`; 0 when there is none. Overlong forms, surrogates and
// numbers past the last character are not valid.
static size_t character_length(std::string_view text, size_t at) {
    const unsigned first = byte_at(text, at);
    const size_t length = sequence_length(first);
    if (length == 0 || at + length > text.size()) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if ((byte_at(text, at + i) & 0xC0U) != 0x80) {
            return 0;
        }
    }
    const unsigned second = length > 1 ? byte_at(text, at + 1) : 0;
    const bool is_refused = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
                            (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
    return is_refused ? 0 : length;
}

std::string mend_utf8(std::string_view text) {
    std::string mended;
    for (size_t at = 0; at < text.size();) {
        const size_t length = character_length(text, at);
        mended += length == 0 ? std::string_view(replacement) : text.substr(at, length);
        at += length == 0 ? 1 : length;
    }
    return mended;
}

bool is_mended(std::string_view text) {
    return text.find(replacement) != std::string_view::npos;
}

static char next_mark(std::string_view text, size_t at) {
    const size_t found = text.find_first_not_of(blanks, at);
    return found == std::string_view::npos ? '\0' : text[found];
}

// Does the quote at `at`, met inside a string, end the string? A name is followed by a colon; a
// value by the end of its object or list, or by a comma and the next item.
static bool ends_string(std::string_view text, size_t at) {
    const size_t next = text.find_first_not_of(blanks, at + 1);
    if (next == std::string_view::npos) {
        return true;
    }
    const char mark = text[next];
    if (mark == ':' || mark == ']') {
        return true;
    }
    if (mark == '}') {
        const char following = next_mark(text, next + 1);
        return following == '\0' || following == ',' || following == ']' || following == '}';
    }
    const char following = mark == ',' ? next_mark(text, next + 1) : 'x';
    return following == '"' || following == '}' || following == ']' || following == '{' ||
           following == '\0';
}

static void append_in_string(std::string &out, char c) {
    constexpr std::array<char, 17> digits = {"0123456789abcdef"};
    const auto code = static_cast<unsigned char>(c);
    if (c == '\n') {
        out += "\\n";
    } else if (code < 0x20) {
        out += "\\u00";
        out += digits[code >> 4U];
        out += digits[code & 15U];
    } else {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
}

static bool is_needless_comma(std::string_view text, size_t at) {
    if (text[at] != ',') {
        return false;
    }
    const char following = next_mark(text, at + 1);
    return following == '}' || following == ']';
}

std::string mend_answer(std::string_view answer) {
    const std::string text = mend_utf8(answer);
    std::string mended;
    bool is_in_string = false;
    for (size_t at = 0; at < text.size(); ++at) {
        const char c = text[at];
        if (is_in_string && (c != '"' || !ends_string(text, at))) {
            append_in_string(mended, c);
            continue;
        }
        if (c == '"') {
            is_in_string = !is_in_string;
        }
        if (!is_needless_comma(text, at)) {
            mended += c;
        }
    }
    return mended;
}

std::string decode_hex_escapes(std::string_view name) {
    std::string decoded;
    for (size_t at = 0; at < name.size();) {
        unsigned value = 0;
        const std::string_view digits = name.substr(at).substr(0, 4);
        if (digits.size() == 4 && digits.substr(0, 2) == "\\x" &&
            std::from_chars(digits.data() + 2, digits.data() + 4, value, 16).ptr ==
                digits.data() + 4) {
            decoded += static_cast<char>(value);
            at += 4;
        } else {
            decoded += name[at++];
        }
    }
    return decoded;
}
