#include "beacon_media/source_line.h"

#include <sstream>

constexpr const char *blanks = " \t\r";

std::string source_line(const std::string &text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const size_t begin = line.find_first_not_of(blanks);
        if (begin != std::string::npos && line[begin] != '#') {
            return line.substr(begin, line.find_last_not_of(blanks) + 1 - begin);
        }
    }
    return "";
}

std::optional<std::vector<std::string>> split_words(const std::string &line) {
    std::vector<std::string> words;
    bool is_in_word = false;
    char quote = '\0';
    for (const char letter : line) {
        const bool is_blank = letter == ' ' || letter == '\t' || letter == '\r';
        if (quote == '\0' && is_blank) {
            is_in_word = false;
            continue;
        }
        if (!is_in_word) {
            words.emplace_back();
            is_in_word = true;
        }
        if (quote != '\0' ? letter == quote : letter == '"' || letter == '\'') {
            quote = quote != '\0' ? '\0' : letter;
        } else {
            words.back() += letter;
        }
    }
    if (quote != '\0') {
        return std::nullopt;
    }
    return words;
}
