#include "net/dispatcher.h"

#include "base/clock.h"
#include "media/data_source.h"
#include "net/relay.h"

#include <cstring>

constexpr uint16_t control_port = 5252;
constexpr uint16_t largest_payload = 30000 - relay_header_size;

// The first payload byte tells the request.
enum ClientRequest : uint8_t {
    request_info = 0,
    request_register = 2, // byte 1: 1 for "no video/audio"
    request_remove = 3,
    request_source_command = '!',
};

constexpr uint8_t mode_data_only = 1;

void dispatch_client_packet(uint8_t *payload, uint16_t length, const char *host, uint16_t port) {
    // The server's own datagrams.
    if (strcmp(host, "127.0.0.1") == 0 && port == control_port) {
        return;
    }
    switch (payload[0]) {
    case request_info:
        send_info_reply(host, port);
        break;
    case request_register:
        // A missing mode byte reads as 0: the buffer behind the payload is zeros.
        register_client(relay_clients(), ipv4_port(host, port), payload[1] == mode_data_only,
                        now_ms());
        break;
    case request_remove:
        remove_client(relay_clients(), ipv4_port(host, port));
        break;
    case request_source_command:
        if (length <= largest_payload) {
            send_to_data_source(payload, length);
        }
        break;
    default:
        break;
    }
}
