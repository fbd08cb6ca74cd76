#pragma once

#include "client/link.h"
#include "client/rc_channels.h"

// Asks for both receivers' channels, for so many seconds at most.
Outcome request_channels(Link &link, double seconds, ReceiverAnswers &receivers);

// The same over link.timeout. Returns an exit code; if it is not exit_ok, a line on standard error
// has said why.
int ask_channels(Link &link, ReceiverAnswers &receivers);
