#include "client/registration.h"

#include <algorithm>

constexpr char register_request = 2; // byte 1: a Streams value
constexpr char leave_request = 3;
constexpr double registration_interval = 2.0;
constexpr double retry_interval = 0.5;

void register_for(Registration &registration, Streams streams, TimePoint now) {
    registration.streams = streams;
    registration.due = now;
}

std::optional<std::string> due_registration(Registration &registration, TimePoint now) {
    if (now < next_registration(registration)) {
        return std::nullopt;
    }
    registration.due = now + from_seconds(registration_interval);
    return std::string{register_request, static_cast<char>(registration.streams)};
}

void note_refusal(Registration &registration, TimePoint now) {
    registration.due = std::min(registration.due, now + from_seconds(retry_interval));
}

TimePoint next_registration(const Registration &registration) {
    return registration.streams == Streams::none ? TimePoint::max() : registration.due;
}

std::string leave_payload() {
    return {leave_request};
}
