#include "beaconctl/text_table.h"

#include <algorithm>

static bool starts_character(char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) != 0x80;
}

size_t text_width(std::string_view text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), starts_character));
}

std::string cut_text(std::string_view text, size_t columns) {
    size_t at = 0;
    for (size_t used = 0; at < text.size(); ++at) {
        used += starts_character(text[at]) ? 1 : 0;
        if (used > columns) {
            break;
        }
    }
    return std::string(text.substr(0, at));
}

std::string progress_bar(double part, size_t columns) {
    constexpr size_t least = 10;
    if (columns < least) {
        return "";
    }
    const size_t width = columns - 2;
    const auto done = static_cast<size_t>(std::clamp(part, 0.0, 1.0) * static_cast<double>(width));
    return "[" + std::string(done, '#') + std::string(width - done, ' ') + "]";
}

std::string printable(std::string_view text, bool keep_lines) {
    std::string out;
    for (size_t at = 0; at < text.size(); ++at) {
        const auto code = static_cast<unsigned char>(text[at]);
        const auto next = at + 1 < text.size() ? static_cast<unsigned char>(text[at + 1]) : 0U;
        if (code == 0xC2 && next >= 0x80 && next < 0xA0) { // U+0080 to U+009F
            out += '?';
            ++at;
        } else if ((code < 0x20 && (code != '\n' || !keep_lines)) || code == 0x7F) {
            out += '?';
        } else {
            out += text[at];
        }
    }
    return out;
}

std::vector<std::string> table_lines(const std::vector<std::pair<std::string, std::string>> &rows) {
    size_t width = 0;
    for (const auto &row : rows) {
        width = std::max(width, text_width(row.first));
    }
    std::vector<std::string> lines;
    for (const auto &[name, value] : rows) {
        std::string left = name + std::string(width - text_width(name) + 2, ' ');
        std::string rest = printable(value, true);
        rest.erase(rest.find_last_not_of('\n') + 1);
        while (true) {
            const size_t end = rest.find('\n');
            std::string line = left + rest.substr(0, end);
            line.erase(line.find_last_not_of(' ') + 1);
            lines.push_back(line);
            if (end == std::string::npos) {
                break;
            }
            rest.erase(0, end + 1);
            left.assign(width + 2, ' ');
        }
    }
    return lines;
}
