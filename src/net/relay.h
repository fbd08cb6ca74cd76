#pragma once

// The fan-out: every packet to a client leaves through this module.
// Stands on: config/config, net/client_registry, net/pace, net/relay_packet, net/tcp_stream,
// net/udp_endpoint, net/udp_outlet.

#include "net/client_registry.h"
#include "net/pace.h"
#include "net/relay_packet.h"
#include "net/udp_endpoint.h"

#include <cstddef>
#include <cstdint>

// Each packet is stamped with the next relay sequence number and sent at the pace of pace.h. No
// send blocks for more than a few milliseconds; see udp_outlet.h. Nothing is sent before
// relay_open. Any thread may call these functions, except relay_video.

// Prepares the relay mutex. Returns 0, or -1 after a message.
int relay_init();

// From now on packets are sent through `endpoint`.
void relay_open(UdpEndpoint &endpoint);

// The registered clients; client_registry.h says what each thread may do with them.
ClientRegistry &relay_clients();

// Stamps `packet`, whose payload length must be set, and sends it to every registered client that
// takes `type`; data packets also go to the display process on this board. The header is written in
// place, the payload is only read. Packets are sent one at a time under the relay mutex, each with
// one system call.
void relay_to_clients(uint8_t type, RelayPacket &packet);

// Passes `length` bytes of video to the TCP client, if there is one, and in blocks of `block_size`,
// the last one shorter, to relay_to_clients as relay_type_video. An empty frame is sent as one
// empty packet. The blocks pass the token bucket of pace.h: a large frame takes 30 us per block.
// One thread only.
void relay_video(const uint8_t *data, size_t length, uint16_t block_size, MustHurry must_hurry);

// Stamps `packet`, whose payload length must be set, and sends it to one client.
void relay_to_client(uint8_t type, RelayPacket &packet, const char *host, uint16_t port);

// Sends a text without a terminating zero to one client, truncated to one packet.
void relay_text_reply(const char *text, size_t length, const char *host, uint16_t port);

// Sends a picture of at most relay_image_limit bytes to one client: a 10, the size as u16, then the
// bytes.
constexpr size_t relay_image_limit = relay_payload_capacity - 3;
void relay_image_reply(const void *image, size_t size, const char *host, uint16_t port);

// Answers an info request: `app_type`, the client count and the device name.
void send_info_reply(const char *host, uint16_t port);
