#pragma once

// Asks before a command does what cannot easily be taken back.
// Stands on: beaconctl/exit_codes, beaconctl/fail, beaconctl/screen, beaconctl/stop, client/clock.

#include <string>

// Prints the question and "[y/N]", and reads a line from standard input. True: it begins with y.
bool ask_yes(const std::string &question);

// Prints the question as it is; the answer has to come within some seconds. A signal to stop is a
// no.
bool ask_yes_within(const std::string &question, double seconds);

// Nobody can be asked, because standard input is no terminal: says so, as `what`, which names what
// asks. Returns the exit code.
int refuse_to_ask(const std::string &what);
bool can_ask();
