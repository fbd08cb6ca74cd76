#include "beaconctl/near_word.h"

#include <algorithm>
#include <cctype>
#include <vector>

static char lower(char c) {
    return static_cast<char>(tolower(static_cast<unsigned char>(c)));
}

// The three last rows of the table of distances between the beginnings of both words.
static size_t distance(std::string_view a, std::string_view b) {
    std::vector<size_t> earlier(b.size() + 1);
    std::vector<size_t> above(b.size() + 1);
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (size_t i = 1; i <= a.size(); ++i) {
        earlier = above;
        above = row;
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const bool is_same = lower(a[i - 1]) == lower(b[j - 1]);
            row[j] = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + (is_same ? 0U : 1U)});
            const bool is_exchanged = i > 1 && j > 1 && lower(a[i - 1]) == lower(b[j - 2]) &&
                                      lower(a[i - 2]) == lower(b[j - 1]);
            row[j] = is_exchanged ? std::min(row[j], earlier[j - 2] + 1) : row[j];
        }
    }
    return row[b.size()];
}

std::string near_word(std::string_view word, std::span<const std::string> candidates) {
    size_t least = std::max<size_t>(word.size() / 3, 1) + 1;
    std::string nearest;
    for (const std::string &candidate : candidates) {
        const size_t away = distance(word, candidate);
        if (away < least && away < candidate.size()) {
            least = away;
            nearest = candidate;
        }
    }
    if (nearest.empty() && !word.empty()) {
        const std::string ending = "_" + std::string(word);
        const auto found =
            std::find_if(candidates.begin(), candidates.end(),
                         [&](const std::string &candidate) { return candidate.ends_with(ending); });
        return found == candidates.end() ? "" : *found;
    }
    return nearest;
}

std::string near_hint(std::string_view word, std::span<const std::string> candidates) {
    const std::string nearest = near_word(word, candidates);
    return nearest.empty() ? "" : ", did you mean \"" + nearest + "\"?";
}
