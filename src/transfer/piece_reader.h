#pragma once

// Reads one piece of a file.
// Stands on: transfer/file_piece_layout.

#include <cstdint>

enum class PieceResult : uint8_t {
    read,
    missing,    // there is no regular file that can be opened
    too_large,  // the file's size does not fit in a piece
    bad_offset, // the offset is not in the file
};

struct FilePiece {
    PieceResult result;
    uint16_t length;   // bytes read
    int64_t full_size; // of the file
};

// Reads up to piece_capacity bytes at `offset` into `data`. `full_size` is the file's size if
// known, otherwise 0. If a read would block, as in some files of /proc, the piece ends there; a
// disk that does not answer still blocks the call. Any thread.
FilePiece read_file_piece(const char *path, int32_t offset, int32_t full_size, uint8_t *data);
