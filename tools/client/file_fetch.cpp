#include "client/file_fetch.h"

#include <cstring>
#include <utility>

constexpr int most_restarts = 5;

FileFetch begin_fetch(std::string path, double timeout, TimePoint now) {
    FileFetch fetch;
    fetch.path = std::move(path);
    fetch.timeout = timeout;
    fetch.heard = now;
    return fetch;
}

void resume_fetch(FileFetch &fetch, uint32_t length, std::string_view tail) {
    fetch.transfer.start = length - static_cast<uint32_t>(tail.size());
    fetch.kept_tail = tail;
}

FetchStep step_fetch(FileFetch &fetch, TimePoint now) {
    if (now < fetch.due) {
        return FetchStep::wait;
    }
    if (fetch.is_asked) {
        if (seconds_between(fetch.heard, now) > fetch.timeout) {
            return FetchStep::silent;
        }
        ++fetch.clock.misses;
    }
    fetch.is_asked = true;
    fetch.asked = now;
    fetch.due = now + from_seconds(piece_patience(fetch.clock));
    return FetchStep::ask;
}

std::string fetch_payload(const FileFetch &fetch) {
    return piece_request(fetch.path, fetch.transfer.offset);
}

// Another client that fetches the same file can make the daemon forget the size, or remember an old
// one. So the size is asked for again. False: the file really changes.
static bool ask_size_again(FileFetch &fetch) {
    FileTransfer &transfer = fetch.transfer;
    if (is_before_data(transfer) || ++fetch.restarts > most_restarts) {
        return false;
    }
    transfer.start = transfer.offset;
    transfer.offset = reset_offset;
    return true;
}

static FetchNews changed_news(FileFetch &fetch) {
    if (!fetch.is_size_known) {
        return FetchNews::shorter;
    }
    return ask_size_again(fetch) ? FetchNews::nothing : FetchNews::changed;
}

// Data came. If it is the first after resuming, it has to begin with the tail.
static FetchEvent data_event(FileFetch &fetch, PieceVerdict verdict, uint32_t offset,
                             std::span<const uint8_t> data) {
    const std::string tail = std::exchange(fetch.kept_tail, "");
    if (data.size() < tail.size() || memcmp(data.data(), tail.data(), tail.size()) != 0) {
        return {FetchNews::differs, offset, {}};
    }
    return {verdict == PieceVerdict::complete ? FetchNews::complete : FetchNews::data, offset,
            data};
}

// The probe was answered. When a complete file is resumed, there is nothing more to fetch.
static FetchEvent size_event(FileFetch &fetch, PieceVerdict verdict) {
    const bool is_news = !std::exchange(fetch.is_size_known, true);
    if (verdict == PieceVerdict::complete) {
        return {FetchNews::complete, fetch.transfer.offset, {}};
    }
    return {is_news ? FetchNews::size : FetchNews::nothing, fetch.transfer.offset, {}};
}

FetchEvent take_packet(FileFetch &fetch, const PacketView &packet, TimePoint now) {
    const auto piece = parse_piece(packet);
    if (!piece || !fetch.is_asked) {
        return {};
    }
    const uint32_t offset = fetch.transfer.offset;
    const PieceVerdict verdict = take_piece(fetch.transfer, *piece);
    if (verdict == PieceVerdict::not_expected) {
        return {};
    }
    note_piece(fetch.clock, seconds_between(fetch.asked, now));
    fetch.is_asked = false;
    fetch.heard = now;
    fetch.due = now;
    switch (verdict) {
    case PieceVerdict::taken:
    case PieceVerdict::complete:
        if (offset == probe_offset) {
            return size_event(fetch, verdict);
        }
        return offset < reset_offset ? data_event(fetch, verdict, offset, piece->data)
                                     : FetchEvent{};
    case PieceVerdict::missing:
        return {FetchNews::missing, 0, {}};
    case PieceVerdict::too_large:
        return {FetchNews::too_large, 0, {}};
    case PieceVerdict::changed:
        return {changed_news(fetch), 0, {}};
    case PieceVerdict::ended_early:
        return {FetchNews::cut_short, 0, {}};
    case PieceVerdict::not_expected:
        break;
    }
    return {};
}
