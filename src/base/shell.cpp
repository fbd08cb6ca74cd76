#include "base/shell.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

void run_shell(const char *command) {
    [[maybe_unused]] const int ignored = system(command); // NOLINT(cert-env33-c): by design
}

static bool is_plain(unsigned char c) {
    return c > 127 || std::isalnum(c) != 0 || (c != 0 && std::strchr("_.,:/@%+=-", c) != nullptr);
}

static bool is_plain_word(const std::string &value) {
    size_t begin = 0;
    size_t end = value.size();
    if (end >= 2 && value.front() == '"' && value.back() == '"') {
        begin = 1;
        end -= 1;
    }
    for (size_t i = begin; i < end; ++i) {
        if (!is_plain(static_cast<unsigned char>(value[i]))) {
            return false;
        }
    }
    return true;
}

std::string shell_word(const char *value) {
    // Judged and written must be the same text, even while another thread changes the setting.
    std::string copy = value;
    if (is_plain_word(copy)) {
        return copy;
    }
    std::string word = "'";
    for (const char c : copy) {
        if (c == '\'') {
            word += R"('\'')";
        } else {
            word += c;
        }
    }
    return word + "'";
}

std::string shell_quoted_text(const char *value) {
    std::string text;
    for (const char *p = value; *p != '\0'; ++p) {
        if (std::strchr("\"$`\\", *p) != nullptr) {
            text += '\\';
        }
        text += *p;
    }
    return text;
}

size_t read_pipe(FILE *pipe, void *data, size_t size) {
    size_t length = 0;
    for (;;) {
        length += fread(static_cast<char *>(data) + length, 1, size - length, pipe);
        if (length == size || ferror(pipe) == 0 || errno != EINTR) {
            return length;
        }
        clearerr(pipe);
    }
}

std::string shell_output(const char *command, size_t limit) {
    std::string output;
    FILE *pipe = popen(command, "re"); // NOLINT(cert-env33-c): by design
    if (pipe == nullptr) {
        return output;
    }
    char piece[1000];
    size_t length = 0;
    while (output.size() < limit && (length = read_pipe(pipe, piece, sizeof piece)) > 0) {
        output.append(piece, std::min(length, limit - output.size()));
    }
    pclose(pipe);
    output.resize(strnlen(output.c_str(), output.size()));
    return output;
}
