#pragma once

// Keeps a client registered: says when to send which payload.
// Stands on: client/clock.

#include "client/clock.h"

#include <optional>
#include <string>

// It reads no clock and sends nothing: the caller passes in the time and sends the payloads. One
// thread at a time may use a record.

// What a client wants to get. The numbers are the protocol's.
enum class Streams : signed char {
    none = -1,      // it is not registered
    everything = 0, // media, telemetry, status, menu notices
    data_only = 1,  // telemetry, status, menu notices
};

struct Registration {
    Streams streams = Streams::none;
    TimePoint due{}; // of the next payload; unused while `streams` is none
};

// From now on the client wants these streams. The first payload is due at once, also when only the
// streams change. With Streams::none no more payloads become due, and the daemon drops the client
// within eleven seconds. Send leave_payload() to make it do so at once.
void register_for(Registration &registration, Streams streams, TimePoint now);

// Returns the payload to send now, if one is due. The next one is then due two seconds later. The
// daemon drops a client that has not registered again for ten seconds.
std::optional<std::string> due_registration(Registration &registration, TimePoint now);

// Nothing listened on the daemon's port. It may be starting again, so the next payload is due in
// half a second at the latest.
void note_refusal(Registration &registration, TimePoint now);

// When due_registration() has something to do; TimePoint::max() means never.
TimePoint next_registration(const Registration &registration);

// The payload that ends a registration.
std::string leave_payload();
