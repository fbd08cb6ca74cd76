#pragma once

// The table of all keys in docs/settings.md.

#include <fstream>
#include <string>
#include <vector>

// Its lines, without the head.
inline std::vector<std::string> lines_of_the_keys() {
    std::ifstream document(DOCS_FOLDER "/settings.md");
    std::vector<std::string> lines;
    bool is_in_keys = false;
    for (std::string line; std::getline(document, line);) {
        if (line.starts_with("## ")) {
            is_in_keys = line == "## Keys";
        } else if (is_in_keys && line.starts_with("| `")) {
            lines.push_back(line);
        }
    }
    return lines;
}
