#pragma once

// Asks for the radio-control channels, and says why there is no answer.
// Stands on: beaconctl/board, client/link, client/rc_channels, client/wait.

#include "client/link.h"
#include "client/rc_channels.h"

// Asks for as long as the link's timeout. Returns an exit code; if it is not exit_ok, a line on
// standard error has said why.
int ask_channels(Link &link, ReceiverAnswers &receivers);
