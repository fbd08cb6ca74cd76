#include "client/file_transfer.h"

#include "client/command_text.h"

#include "base/bytes.h"
#include "net/relay_packet.h"
#include "transfer/file_piece_layout.h"

#include <algorithm>
#include <cmath>

std::optional<FilePiece> parse_piece(const PacketView &packet) {
    if (packet.type != relay_type_file || packet.payload.size() < piece_data_at ||
        get_u16(&packet.payload[piece_length_at]) != packet.payload.size() - piece_data_at) {
        return std::nullopt;
    }
    return FilePiece{get_u32(&packet.payload[piece_offset_at]),
                     get_u32(&packet.payload[piece_full_size_at]),
                     packet.payload.subspan(piece_data_at)};
}

std::string piece_request(const std::string &path, uint32_t offset) {
    return command_text(
        {{"cmd", "file"}, {"param", "get"}, {"value", path}, {"value2", std::to_string(offset)}});
}

static PieceVerdict take_probe(FileTransfer &transfer, const FilePiece &piece) {
    if (piece.full_size > largest_file) {
        return PieceVerdict::too_large;
    }
    if (transfer.start > piece.full_size ||
        (transfer.size != 0 && piece.full_size != transfer.size)) {
        return PieceVerdict::changed;
    }
    transfer.size = piece.full_size;
    transfer.offset = transfer.start;
    return transfer.offset == transfer.size ? PieceVerdict::complete : PieceVerdict::taken;
}

PieceVerdict take_piece(FileTransfer &transfer, const FilePiece &piece) {
    if (piece.offset == 0 && piece.full_size == 0 && piece.data.empty()) {
        return PieceVerdict::missing; // the probe of an empty file is answered with its own offset
    }
    if (piece.offset != transfer.offset) {
        return PieceVerdict::not_expected;
    }
    if (transfer.offset == reset_offset) {
        transfer.offset = probe_offset;
        return PieceVerdict::taken;
    }
    if (transfer.offset == probe_offset) {
        return take_probe(transfer, piece);
    }
    if (piece.full_size != transfer.size || piece.data.size() > transfer.size - transfer.offset) {
        return PieceVerdict::changed;
    }
    if (piece.data.empty()) {
        return PieceVerdict::ended_early;
    }
    transfer.offset += static_cast<uint32_t>(piece.data.size());
    return transfer.offset == transfer.size ? PieceVerdict::complete : PieceVerdict::taken;
}

double piece_patience(const PieceClock &clock) {
    constexpr double least = 0.1;
    constexpr double most = 2.0;
    return std::min(std::max(3 * clock.usual, least) * std::exp2(std::min(clock.misses, 8)), most);
}

void note_piece(PieceClock &clock, double seconds) {
    clock.usual = 0.75 * clock.usual + 0.25 * seconds;
    clock.misses = 0;
}
