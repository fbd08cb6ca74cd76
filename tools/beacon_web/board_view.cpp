#include "beacon_web/board_view.h"

#include "source/audio_format.h"

#include <algorithm>
#include <cstdio>
#include <utility>

constexpr double picture_patience = 2.5; // seconds without a picture
constexpr double sound_patience = 1.5;

void note_packet(BoardView &view, const PacketView &packet, TimePoint now) {
    view.is_refused = false;
    if (packet.type < stream_count) {
        ++view.streams[packet.type].packets;
        view.streams[packet.type].bytes += packet.payload.size();
    } else {
        ++view.unknown;
    }
    view.arrival = count_packet(view.sequence, packet.sequence);
    view.most_lost = std::max(view.most_lost, view.sequence.lost);
    if (packet_kind(packet) == PacketKind::audio) {
        view.sound_at = now;
        view.has_known_sound = packet.payload.size() == audio_datagram_size;
    }
    if (const auto status = parse_status(packet)) {
        view.status = status;
        view.status_at = now;
    } else if (packet_kind(packet) == PacketKind::menu_notice) {
        view.menu_event = packet.payload[1];
    }
}

void note_clients(BoardView &view, const std::optional<std::string> &text) {
    if (!text) {
        view.clients.reset();
    } else if (auto clients = parse_client_list(*text)) {
        view.clients = std::move(clients);
    }
}

Drive drive_of_view(const BoardView &view) {
    return view.status ? drive_here(*view.status, view.mount_info) : Drive::unknown;
}

std::optional<double> free_bytes(const BoardView &view) {
    if (!view.status || view.status->storage_place == 0 || drive_of_view(view) == Drive::missing) {
        return std::nullopt;
    }
    return view.status->free_megabytes * 1e6;
}

std::optional<int> temperature(const BoardView &view) {
    if (!view.status || view.status->temperature == 0) { // the daemon says 0 then
        return std::nullopt;
    }
    return view.status->temperature;
}

void note_refused(BoardView &view) {
    view.is_refused = true;
}

bool is_present(const BoardView &view, TimePoint now) {
    return view.status && !view.is_refused &&
           seconds_between(view.status_at, now) < status_patience;
}

static std::string lost_text(double seconds) {
    char text[60];
    snprintf(text, sizeof text, "The board has been silent for %.0f s.", seconds);
    return text;
}

std::string picture_problem(const BoardView &view, TimePoint now) {
    if (!view.problem.empty()) {
        return "There is no way to " + view.address + ": " + view.problem + ".";
    }
    if (!view.status) {
        return view.is_refused ? "No daemon runs at " + view.address + "."
                               : "No daemon answers at " + view.address + ".";
    }
    if (!is_present(view, now)) {
        return lost_text(seconds_between(view.status_at, now));
    }
    if (view.pictures > 0 && seconds_between(view.picture_at, now) < picture_patience) {
        return "";
    }
    if (view.status->video) {
        return "Waiting for the camera's next key picture.";
    }
    return view.status->data_source ? "The camera's program sends no video."
                                    : "No camera's program runs on the board.";
}

std::string sound_problem(const BoardView &view, TimePoint now) {
    if (!is_present(view, now)) {
        return "No sound comes while the board does not answer.";
    }
    if (seconds_between(view.sound_at, now) > sound_patience) {
        return "The board sends no sound: it is off in the settings (video), or no program has "
               "any.";
    }
    return view.has_known_sound ? ""
                                : "The board's sound is of a kind that the console cannot play.";
}
