#pragma once

#include <cstddef>
#include <cstdint>

// The data source server on UDP 5000: telemetry and JSON from the camera's source process, relayed
// to all clients; and the way back, for commands to that process.

// Handles a datagram of the data source that begins with "{", after it has been relayed. `data` is
// followed by one zero at least. Runs on the data source's receive thread.
using SourceCommandHandler = void (*)(uint8_t *data, uint16_t length, const char *host,
                                      uint16_t port);

// Starts the server. `handler` may be null: then JSON is only relayed. Returns 0, or -1 when the
// port cannot be bound. Start-up only.
int init_data_source(uint16_t port, SourceCommandHandler handler);

// Has the data source been heard within the last two seconds? Any thread.
bool data_source_present();

// Sends the bytes as one datagram to where the data source last sent from; nothing when that is
// not known. Any thread.
void send_to_data_source(const void *data, size_t length);

// Sends the command as JSON behind a "!", with the arguments as they are, cut to 1023 characters.
// Any thread.
void send_data_source_command(const char *cmd, const char *name, const char *param,
                              const char *value, const char *value2, const char *value3);
