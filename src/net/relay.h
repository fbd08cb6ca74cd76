#pragma once

#include "net/client_registry.h"
#include "net/relay_packet.h"
#include "net/udp_endpoint.h"

#include <cstddef>
#include <cstdint>

// The fan-out: every packet that reaches a client leaves through this module, stamped with the
// next relay sequence number and followed by the 2 microsecond pause. All functions may be called
// from any thread; until relay_open they send nothing.

// Prepares the relay mutex. Returns 0, or -1 after a message.
int relay_init();

// From now on packets leave through `endpoint`.
void relay_open(UdpEndpoint &endpoint);

// The registered clients; client_registry.h says which thread may do what with them.
ClientRegistry &relay_clients();

// Stamps `packet`, whose payload length is set, and sends it to every registered client that takes
// `type`; data packets also go to the display process on this board. The header is written in
// place, the payload is only read. Packets are sent one at a time under the relay mutex.
void relay_to_clients(uint8_t type, RelayPacket &packet);

// Cuts `length` bytes of video into blocks of `block_size`, the last one shorter, and hands each
// to the TCP client, if there is one, and to relay_to_clients as relay_type_video. An empty frame
// goes as one empty packet.
void relay_video(const uint8_t *data, size_t length, uint16_t block_size);

// Stamps `packet`, whose payload length is set, and sends it to one client.
void relay_to_client(uint8_t type, RelayPacket &packet, const char *host, uint16_t port);

// Sends a text to one client, without a terminating zero; cut to what a packet holds.
void relay_text_reply(const char *text, size_t length, const char *host, uint16_t port);

// Sends a picture of at most relay_image_limit bytes to one client: a 10, the size as u16, the
// bytes.
constexpr size_t relay_image_limit = relay_payload_capacity - 3;
void relay_image_reply(const void *image, size_t size, const char *host, uint16_t port);

// Answers an info request: `app_type`, the client count and the device name.
void send_info_reply(const char *host, uint16_t port);
