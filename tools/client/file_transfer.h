#pragma once

// Reads file pieces, and knows in which order to ask for them.
// Stands on: client/command_text, client/packet, net/relay_packet, transfer/file_piece_layout.

#include "client/packet.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>

// client/file_fetch.h fetches a whole file with this.
//
// The client asks for one piece, and for the next one when it has come. Before the first piece it
// asks for two offsets past the end of any file. The first request makes the daemon
// forget the size that it may remember from an earlier transfer of the same file. The answer to the
// second one, the probe, gives the size as it is now. Both also distinguish a missing file from an
// empty one.

// A piece as the daemon sends it. The data belongs to the packet's buffer.
struct FilePiece {
    uint32_t offset;
    uint32_t full_size;
    std::span<const uint8_t> data;
};

// Nothing when the packet is no piece, or says another length than it has.
std::optional<FilePiece> parse_piece(const PacketView &packet);

constexpr uint32_t reset_offset = 0x7FFFFFFE;
constexpr uint32_t probe_offset = 0x7FFFFFFF;       // the largest that a request can name
constexpr uint32_t largest_file = reset_offset - 1; // bytes

// The command that asks for the piece at `offset`.
std::string piece_request(const std::string &path, uint32_t offset);

struct FileTransfer {
    uint32_t offset = reset_offset; // to ask for next: reset_offset, probe_offset, then of the data
    uint32_t start = 0;             // of the first piece after the probe
    uint32_t size = 0;              // of the file; known after the probe
};

enum class PieceVerdict {
    taken,        // the data belongs where `offset` was; there is more to come
    complete,     // the same, and it was the last piece
    not_expected, // it answers an earlier request: wait on
    missing,      // there is no such file, or it is too large for the daemon
    too_large,    // larger than largest_file
    changed,      // the size is not what it was
    ended_early,  // no data, although the file does not end here
};

inline bool is_before_data(const FileTransfer &transfer) {
    return transfer.offset >= reset_offset;
}

// Takes an answer, and moves `offset` on if it is taken. The probe's answer has no data; it is
// `changed` when `start` is past the end, or when an earlier probe gave another size.
PieceVerdict take_piece(FileTransfer &transfer, const FilePiece &piece);

// How long to wait for a piece before asking again.
struct PieceClock {
    double usual = 0.15; // seconds that a piece takes, averaged
    int misses = 0;      // in a row
};

// Three times the usual time, doubled for each miss; 0.1 to 2 seconds.
double piece_patience(const PieceClock &clock);

// A piece came after that many seconds.
void note_piece(PieceClock &clock, double seconds);
