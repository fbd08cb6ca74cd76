#pragma once

// Decides what to do with each client payload and each JSON command of the data source.
// Stands on: config/answer, config/boot_turn, config/config, config/update, config/wlan_iface,
// media/data_source, net/control_server, net/relay, net/wlan_scan, rc/rc_block,
// transfer/file_download.

#include "net/control_server.h"

#include <cstdint>

// `payload` must be followed by a zero. `host` and `port` are those of the requester, who gets the
// replies. Commands run on the calling thread, and the call returns when they are done; scans and
// updates take seconds.
//
// These end the process abnormally, by design: a JSON payload that does not parse or lacks "cmd",
// and the commands "wlan", "file", "rc" and "updateconfig" without the members that they need.

// The control server's ClientPacketHandler: runs on its receive thread and on its command thread.
//
// Stack: the largest frame is that of a screenshot reply, one 60012-byte relay packet; with the
// calls below it, some 70 kB of a thread's 8 MB.
void dispatch_client_packet(uint8_t *payload, uint16_t length, const char *host, uint16_t port);

// The control server's ClientTurnOf. Registration, removal and gimbal values, those for the data
// source included, never wait for a command. An info request waits for the commands of its own
// client only, so that it tells what they have changed. All else keeps its order.
ClientTurn client_turn(uint8_t kind);

// The data source's SourceCommandHandler: JSON only; runs on its receive thread.
void dispatch_source_command(uint8_t *payload, uint16_t length, const char *host, uint16_t port);
