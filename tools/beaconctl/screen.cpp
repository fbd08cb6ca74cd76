#include "beaconctl/screen.h"

#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/text_table.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

constexpr double progress_interval = 0.2;
constexpr const char *clear_to_line_end = "\x1b[K";
constexpr const char *clear_below = "\x1b[J";

constexpr double line_interval = 5.0; // of progress off a terminal

static bool is_progress_wanted = false; // off a terminal, too
static int output_error = 0;            // the first error of standard output

bool is_terminal(int fd) {
    return isatty(fd) == 1;
}

struct TerminalSize {
    size_t columns = 79;
    size_t rows = 23;
};

// One column is left free, because a terminal may wrap when the last one is written, and one row
// for the cursor.
static TerminalSize terminal_size(int fd) {
    winsize size{};
    if (ioctl(fd, TIOCGWINSZ, &size) != 0 || size.ws_col < 2 || size.ws_row < 2) {
        return {};
    }
    return {size.ws_col - 1U, size.ws_row - 1U};
}

static bool flush_output() {
    errno = 0;
    const bool is_taken = fflush(stdout) == 0 && ferror(stdout) == 0;
    if (!is_taken && output_error == 0) {
        output_error = errno;
    }
    return is_taken;
}

bool print_text(const std::string &text) {
    fputs(text.c_str(), stdout);
    return flush_output();
}

bool print_lines(const std::vector<std::string> &lines) {
    std::string text;
    for (const std::string &line : lines) {
        text += line + "\n";
    }
    return print_text(text);
}

int finish_output(int code) {
    if (flush_output() || output_error == EPIPE) {
        return code;
    }
    fail("cannot write to standard output" +
         (output_error == 0 ? "" : ": " + std::string(strerror(output_error))));
    return code == exit_ok ? exit_failed : code;
}

bool print_table(const std::vector<std::pair<std::string, std::string>> &rows) {
    return print_lines(table_lines(rows));
}

bool rewrite_screen(Screen &screen, const std::vector<std::string> &lines) {
    std::string text;
    if (screen.lines > 0) {
        text = "\x1b[" + std::to_string(screen.lines) + "A"; // up to the block's first line
    }
    const TerminalSize size = terminal_size(STDOUT_FILENO);
    screen.lines = std::min(lines.size(), size.rows);
    for (size_t i = 0; i < screen.lines; ++i) {
        const bool is_cut = i + 1 == screen.lines && screen.lines < lines.size();
        text +=
            "\r" +
            cut_text(is_cut ? "(there is more: make the window taller)" : lines[i], size.columns) +
            clear_to_line_end + "\n";
    }
    text += clear_below;
    return print_text(text);
}

void take_keys(KeyInput &keys) {
    const pid_t owner = tcgetpgrp(STDIN_FILENO); // -1: the terminal controls nobody
    const bool is_in_background = owner > 0 && owner != getpgrp(); // it would be stopped
    if (!is_terminal(STDIN_FILENO) || is_in_background ||
        tcgetattr(STDIN_FILENO, &keys.before) != 0) {
        return;
    }
    termios single = keys.before;
    single.c_lflag &= ~static_cast<tcflag_t>(ICANON);
    keys.is_taken = tcsetattr(STDIN_FILENO, TCSANOW, &single) == 0;
}

char key_pressed(const KeyInput &keys) {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    char key = '\0';
    return keys.is_taken && poll(&input, 1, 0) > 0 && read(STDIN_FILENO, &key, 1) == 1 ? key : '\0';
}

void give_keys_back(KeyInput &keys) {
    if (keys.is_taken) {
        tcsetattr(STDIN_FILENO, TCSANOW, &keys.before);
        keys.is_taken = false;
    }
}

void always_show_progress() {
    is_progress_wanted = true;
}

bool progress_due(Progress &progress) {
    const bool is_at_terminal = is_terminal(STDERR_FILENO);
    if (Clock::now() < progress.due || (!is_at_terminal && !is_progress_wanted)) {
        return false;
    }
    progress.due = after(is_at_terminal ? progress_interval : line_interval);
    return true;
}

void show_progress(Progress &progress, const std::string &text) {
    if (!is_terminal(STDERR_FILENO)) {
        fprintf(stderr, "%s\n", text.c_str());
        return;
    }
    const std::string line = cut_text(text, terminal_size(STDERR_FILENO).columns);
    fprintf(stderr, "\r%s%s", line.c_str(), clear_to_line_end);
    progress.is_shown = true;
}

void clear_progress(Progress &progress) {
    if (progress.is_shown) {
        fprintf(stderr, "\r%s", clear_to_line_end);
        progress.is_shown = false;
    }
}

size_t progress_columns() {
    return is_terminal(STDERR_FILENO) ? terminal_size(STDERR_FILENO).columns : 0;
}

std::string bytes_text(double bytes) {
    char text[40];
    if (bytes < 1e3) {
        snprintf(text, sizeof text, "%.0f bytes", bytes);
    } else if (bytes < 1e6) {
        snprintf(text, sizeof text, "%.1f kB", bytes / 1e3);
    } else {
        snprintf(text, sizeof text, "%.1f MB", bytes / 1e6);
    }
    return text;
}
