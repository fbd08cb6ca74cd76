#include "base/shell.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

void run_shell(const char *command) {
    [[maybe_unused]] const int ignored = system(command); // NOLINT(cert-env33-c): by design
}

static bool is_plain(unsigned char c) {
    return c > 127 || std::isalnum(c) != 0 || (c != 0 && std::strchr("_.,:/@%+=-", c) != nullptr);
}

static bool is_plain_word(const char *value) {
    size_t begin = 0;
    size_t end = std::strlen(value);
    if (end >= 2 && value[0] == '"' && value[end - 1] == '"') {
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

// Appends as much of `part` as leaves room for the terminating zero.
static void append(char *word, size_t size, size_t &used, const char *part) {
    for (; *part != '\0' && used + 1 < size; ++part) {
        word[used++] = *part;
    }
    word[used] = '\0';
}

char *shell_word(char *word, size_t size, const char *value) {
    // Judged and written must be the same text, even while another thread changes the setting.
    const std::string copy = value;
    size_t used = 0;
    if (is_plain_word(copy.c_str())) {
        append(word, size, used, copy.c_str());
        return word;
    }
    append(word, size, used, "'");
    for (const char *p = copy.c_str(); *p != '\0'; ++p) {
        const char one[2] = {*p, '\0'};
        append(word, size, used, *p == '\'' ? "'\\''" : one);
    }
    append(word, size, used, "'");
    return word;
}

char *shell_quoted_text(char *text, size_t size, const char *value) {
    size_t used = 0;
    text[0] = '\0';
    for (const char *p = value; *p != '\0'; ++p) {
        const char escaped[3] = {'\\', *p, '\0'};
        const bool is_special = std::strchr("\"$`\\", *p) != nullptr;
        append(text, size, used, is_special ? escaped : escaped + 1);
    }
    return text;
}

std::string shell_output(const char *command, size_t limit) {
    std::string output;
    FILE *pipe = popen(command, "re"); // NOLINT(cert-env33-c): by design
    if (pipe == nullptr) {
        return output;
    }
    char piece[1000];
    size_t length = 0;
    while (output.size() < limit && (length = fread(piece, 1, sizeof piece, pipe)) > 0) {
        output.append(piece, std::min(length, limit - output.size()));
    }
    pclose(pipe);
    output.resize(strnlen(output.c_str(), output.size()));
    return output;
}
