#include "beaconctl/receivers.h"

#include "beaconctl/board.h"
#include "client/wait.h"

int ask_channels(Link &link, ReceiverAnswers &receivers) {
    return report_silence(link, ask(link, channels_request(link.wait.timeout, receivers)));
}
