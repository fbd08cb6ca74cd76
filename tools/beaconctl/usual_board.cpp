#include "beaconctl/usual_board.h"

#include "beaconctl/text_file.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

static std::optional<uint16_t> read_port(std::string_view text) {
    uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    const bool is_port = error == std::errc() && end == text.data() + text.size() && port > 0;
    return is_port ? std::optional(port) : std::nullopt;
}

UsualBoard parse_board(std::string_view text) {
    const size_t colon = std::min(text.find(':'), text.size());
    UsualBoard board{std::string(text.substr(0, colon)), std::nullopt, ""};
    if (colon < text.size()) {
        board.port = read_port(text.substr(colon + 1));
        board.error = board.port ? "" : "\"" + std::string(text) + "\" has no port after the colon";
    }
    return board;
}

static std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r";
    const size_t first = text.find_first_not_of(blanks);
    return first == text.npos ? "" : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// The address is the value of "host", or stands alone. False: it is no address.
static bool take_address(UsualBoard &board, std::string_view text) {
    const UsualBoard given = parse_board(text);
    if (given.host.empty() || !given.error.empty() || text.find_first_of(" \t=") != text.npos) {
        return false;
    }
    board.host = given.host;
    board.port = given.port ? given.port : board.port;
    return true;
}

static bool take_line(UsualBoard &board, std::string_view line) {
    const size_t equals = line.find('=');
    if (equals == line.npos) {
        return line.empty() || take_address(board, line);
    }
    const std::string_view name = trimmed(line.substr(0, equals));
    const std::string_view value = trimmed(line.substr(equals + 1));
    if (name == "port" && read_port(value)) {
        board.port = read_port(value);
        return true;
    }
    return name == "host" && take_address(board, value);
}

UsualBoard parse_board_file(std::string_view text) {
    UsualBoard board;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        const std::string_view whole = text.substr(at, end - at);
        at = end + 1;
        const std::string_view line = trimmed(whole.substr(0, whole.find('#')));
        if (!take_line(board, line)) {
            board.error = "\"" + std::string(line) +
                          "\" is none of NAME, NAME:PORT, host = NAME, port = NUMBER";
        }
    }
    return board;
}

static std::string variable(const char *name) {
    const char *value = getenv(name); // NOLINT(concurrency-mt-unsafe): there is one thread
    return value == nullptr ? "" : value;
}

UsualBoard usual_board() {
    if (const std::string host = variable("BEACONCTL_HOST"); !host.empty()) {
        UsualBoard board = parse_board(host);
        board.error = board.error.empty() ? "" : "BEACONCTL_HOST: " + board.error;
        return board;
    }
    const std::string config = variable("XDG_CONFIG_HOME");
    const std::string name =
        (config.empty() ? variable("HOME") + "/.config" : config) + "/beaconctl";
    std::string text;
    const int error = read_text_file(name, text);
    UsualBoard board = parse_board_file(text);
    if (error != 0 && error != ENOENT && error != ENOTDIR) {
        board.error = strerror(error);
    }
    board.error = board.error.empty() ? "" : name + ": " + board.error;
    return board;
}
