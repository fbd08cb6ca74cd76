#pragma once

// Sends video to the TCP client on its own thread, so that a stalled or lost client delays nothing
// else.
// Stands on: net/frame_queue.

#include <cstddef>
#include <cstdint>

// Frames are queued and sent whole, however long the client takes. A frame that does not fit in the
// queue is dropped, and the client continues with a later one. The number of dropped frames is
// printed, at most once a minute.

// Starts the thread. Returns false on failure. Start-up only.
bool start_tcp_stream();

// From now on frames go to `socket`, a blocking connection whose sends time out after a few
// seconds. Called by the thread that accepts clients.
void begin_tcp_stream(int socket);

// Ends the stream: shuts the connection down and returns when the socket is no longer used and can
// be closed. Called by the thread that accepts clients, after it has seen the connection end.
void end_tcp_stream();

// Is a client connected? Any thread.
bool tcp_client_connected();

// Queues a copy of a frame for the client, if there is one. Does not wait for the client. Any
// thread.
void tcp_send_frame(const uint8_t *data, size_t length);

// A client that should answer and has been silent for this long counts as lost.
constexpr uint32_t tcp_silence_ms = 20000;

// Is a client lost that has not acknowledged this many segments, has not answered this many window
// probes, and was last heard from this long ago?
constexpr bool tcp_client_vanished(uint32_t unacknowledged, uint32_t probes,
                                   uint32_t heard_ms_ago) {
    // The first probe may still be in flight.
    return (unacknowledged > 0 || probes > 1) && heard_ms_ago >= tcp_silence_ms;
}
