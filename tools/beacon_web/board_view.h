#pragma once

// What the console has seen of the board.
// Stands on: beacon_web/client_list, client/clock, client/mount_list, client/packet,
// client/sequence_count, client/status_record, source/audio_format.

#include "beacon_web/client_list.h"
#include "client/clock.h"
#include "client/mount_list.h"
#include "client/packet.h"
#include "client/sequence_count.h"
#include "client/status_record.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

constexpr size_t stream_count = 5; // types of packet

struct StreamTotal {
    uint64_t packets = 0;
    uint64_t bytes = 0; // of payload
};

struct BoardView {
    std::string address; // "192.168.1.10:5252"
    std::string problem; // why there is no link to it; empty when there is one
    bool is_refused = false;
    bool is_here = false; // the daemon runs on this machine
    std::array<StreamTotal, stream_count> streams;
    uint64_t unknown = 0; // packets of another type
    SequenceCount sequence;
    Arrival arrival = Arrival::in_order; // of the last packet
    uint64_t most_lost = 0;              // sequence.lost at its highest
    std::optional<StatusRecord> status;  // the last one
    TimePoint status_at{};
    uint64_t pictures = 0;                                // that could be shown
    TimePoint picture_at{};                               // the last of them
    TimePoint sound_at{};                                 // the last packet of sound
    bool has_known_sound = false;                         // the page can play it
    std::optional<std::vector<RegisteredClient>> clients; // known where the daemon runs
    std::string mount_info;  // own_mount_info_path, where the daemon runs; empty: not known
    int16_t menu_event = -1; // the last one that has not been passed on; -1: none
};

// Counts a packet, and keeps what it says.
void note_packet(BoardView &view, const PacketView &packet, TimePoint now);

// Takes the text of the daemon's list of clients, if there is one. Half a list changes nothing.
void note_clients(BoardView &view, const std::optional<std::string> &text);

// Whether a drive is at the storage place of the last status record.
Drive drive_of_view(const BoardView &view);

// Nothing: the status does not say, or the free space is not that of a drive.
std::optional<double> free_bytes(const BoardView &view);

// Degrees Celsius. Nothing: the board cannot read it.
std::optional<int> temperature(const BoardView &view);

// The daemon's port is closed.
void note_refused(BoardView &view);

constexpr double status_patience = 3.0; // seconds without a status record

// Does the daemon answer?
bool is_present(const BoardView &view, TimePoint now);

// Why there is no moving picture, in a sentence or two; empty when there is one.
std::string picture_problem(const BoardView &view, TimePoint now);

// Why there is no sound, in a sentence; empty when there is some.
std::string sound_problem(const BoardView &view, TimePoint now);
