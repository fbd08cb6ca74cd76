#pragma once

// Lets the helpers share one of the daemon's places for clients.
// Stands on: client/clock, client/link, client/packet, net/relay_packet, source/complain.

#include <cstddef>

// The first helper that needs the daemon's packets starts a thread that registers and passes
// everything on to all helpers over local sockets. It goes on while any of them is connected. When
// its process is killed, the connections end, and the next helper takes over. Only helpers of the
// same user share it. The sockets' name is free to all users: when another one has taken it, each
// helper has a hub to itself, and so one of the daemon's places.

// A message is one or more of the daemon's datagrams, one after the other: the blocks of a frame
// come together, and one message wakes a helper once.
constexpr size_t largest_hub_message = 131072;
// A message of this length says that the daemon does not run, or has been started again.
constexpr size_t gone_message_size = 1;

// A socket that receives the daemon's packets. It is readable, and ends, when the hub is gone. -1
// after a message.
int connect_to_hub();
