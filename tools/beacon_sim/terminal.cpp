#include "beacon_sim/terminal.h"

#include "source/complain.h"

#include <cstdlib>
#include <termios.h>
#include <unistd.h>

static termios saved;    // the terminal's settings before the change
static bool is_key_mode; // was the terminal changed?

void leave_key_mode() {
    if (is_key_mode) {
        tcsetattr(STDIN_FILENO, TCSANOW, &saved);
        is_key_mode = false;
    }
}

bool enter_key_mode() {
    if (tcgetattr(STDIN_FILENO, &saved) != 0) {
        complain("--keys needs a terminal on standard input");
        return false;
    }
    termios keys = saved;
    keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    keys.c_cc[VMIN] = 1;
    keys.c_cc[VTIME] = 0;
    static bool is_registered;
    if (!is_registered) {
        is_registered = true;
        atexit(leave_key_mode);
    }
    is_key_mode = true;
    return tcsetattr(STDIN_FILENO, TCSANOW, &keys) == 0;
}
