#pragma once

#include "client/packet.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>

// Fetching a file: one piece is asked for, and the next one when it has come. Before the first
// piece come two requests for what lies behind any file. The first makes the daemon forget a size
// that it may remember from an earlier transfer of the file. The second, the probe, tells the size
// as it is now. Both tell a missing file from an empty one.

// A piece as the daemon sends it; the data belongs to the packet's buffer.
struct FilePiece {
    uint32_t offset;
    uint32_t full_size;
    std::span<const uint8_t> data;
};

// Nothing when the packet carries no piece, or one that says another length than it has.
std::optional<FilePiece> parse_piece(const PacketView &packet);

constexpr uint32_t reset_offset = 0x7FFFFFFE;
constexpr uint32_t probe_offset = 0x7FFFFFFF; // the last that a request can name
constexpr uint32_t largest_file = reset_offset - 1;

// The command that asks for the piece at `offset`; `path` becomes one JSON string.
std::string piece_request(const std::string &path, uint32_t offset);

// What is known of a transfer. `offset` is what is to be asked for next: reset_offset, then
// probe_offset, then where the next piece belongs.
struct FileTransfer {
    uint32_t offset = reset_offset;
    uint32_t start = 0; // where to begin after the probe: the length of what is there already
    uint32_t size = 0;
};

enum class PieceVerdict {
    taken,        // the data belongs at the old offset; there is more to come
    complete,     // the same, and it was the last
    not_expected, // an answer to an earlier request: wait on
    missing,      // there is no such file
    too_large,    // larger than the protocol can tell
    changed,      // the file has another size than it had
    ended_early,  // no data although the end is not reached
};

inline bool is_before_data(const FileTransfer &transfer) {
    return transfer.offset >= reset_offset;
}

// Takes an answer. When the probe's is taken, the data is empty and `offset` becomes `start`; a
// `start` that is past the end is `changed`, and so is another size than an earlier probe told.
PieceVerdict take_piece(FileTransfer &transfer, const FilePiece &piece);

// How long to wait for a piece before asking again: three times what pieces take, doubled for each
// in a row that does not come. Seconds.
struct PieceClock {
    double usual = 0.15;
    int misses = 0;
};
double piece_patience(const PieceClock &clock);
void note_piece(PieceClock &clock, double seconds);
