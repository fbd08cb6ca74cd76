#pragma once

// The data source server on UDP 5000: telemetry and JSON in, commands out.
// Stands on: config/config, net/relay, net/udp_endpoint.

#include <cstddef>
#include <cstdint>

// It relays what the camera's source process sends to all clients, and sends commands to that
// process.

// Handles a datagram that begins with "{", after it has been relayed. `data` is followed by at
// least one zero. Runs on the data source's receive thread.
using SourceCommandHandler = void (*)(uint8_t *data, uint16_t length, const char *host,
                                      uint16_t port);

// Starts the server. With a null `handler` JSON is only relayed. Returns 0, or -1 when the port
// cannot be bound. Start-up only.
int init_data_source(uint16_t port, SourceCommandHandler handler);

// Has the data source sent anything within the last two seconds? Any thread.
bool data_source_present();

// Sends the bytes as one datagram to the address that the data source last sent from; does nothing
// when that is unknown. Any thread.
void send_to_data_source(const void *data, size_t length);

// Sends the command as "!" followed by JSON, with the arguments not escaped and the whole truncated
// to 1023 characters. Any thread.
void send_data_source_command(const char *cmd, const char *name, const char *param,
                              const char *value, const char *value2, const char *value3);
