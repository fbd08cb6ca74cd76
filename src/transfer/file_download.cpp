#include "transfer/file_download.h"

#include "base/bytes.h"
#include "base/ipv4.h"
#include "base/pause.h"
#include "base/relaxed.h"
#include "base/text.h"
#include "net/relay.h"
#include "net/relay_packet.h"
#include "transfer/file_piece_layout.h"
#include "transfer/piece_reader.h"
#include "transfer/transfer_lock.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <new>
#include <pthread.h>
#include <semaphore.h>

constexpr uint32_t idle_period_us = 30000;
constexpr uint32_t busy_period_us = 100; // while a transfer is in progress
constexpr uint32_t busy_turns = 50000;   // after this many without a request the client is gone
constexpr long patience_ms = 250;        // time to read a piece, before the next request is served
constexpr int slow_reader_capacity = 4;
constexpr size_t path_size = 256;

struct Request {
    unsigned number; // counts requests and resets
    char path[path_size];
    bool is_path_cut; // the path was longer than `path`, so it is not served
    char host[ipv4_text_size];
    int32_t port;
    int32_t offset;
    int32_t full_size; // of the file; 0: not known yet
};

// A thread that reads pieces, so that a disk that does not answer blocks nothing else.
struct Reader {
    sem_t given;     // posted with each request
    sem_t served;    // posted after each request, unless the worker has abandoned the reader
    Request request; // belongs to the reader between the two
    // These are guarded by the transfer lock.
    unsigned number; // of the last request for what it reads
    bool is_busy;
    bool is_left; // abandoned by the worker: the reader ends after this request

    Relaxed<bool> is_pause_due; // before the worker's next turn
};

// The download state. Everything but the poll period is guarded by the transfer lock.
static struct {
    Request request;               // the last one
    bool is_pending;               // it has not been served yet
    char transfer_path[path_size]; // of the transfer that the request's full_size belongs to
    uint32_t empty_turns;          // turns without a request since the last one
    // Abandoned by the worker and still reading; null: none.
    Reader *slow_readers[slow_reader_capacity];
} state;
static Relaxed<uint32_t> poll_period_us{idle_period_us};

// Call with the lock held.
static void reset_state() {
    state.request = {state.request.number + 1, "", false, "", 0, 0, 0};
    state.is_pending = false;
    state.transfer_path[0] = '\0';
    poll_period_us = idle_period_us;
    fputs("File finished\n", stderr);
}

void reset_file_download() {
    lock_transfer();
    reset_state();
    unlock_transfer();
}

void request_file_download(const char *host, uint16_t port, const char *path, int32_t offset) {
    lock_transfer();
    Request &request = state.request;
    ++request.number;
    copy_text(request.path, sizeof request.path, path);
    request.is_path_cut = strlen(path) >= sizeof request.path;
    // The file size is kept for one transfer; another file begins a new one.
    if (strcmp(state.transfer_path, request.path) != 0) {
        copy_text(state.transfer_path, sizeof state.transfer_path, request.path);
        request.full_size = 0;
    }
    copy_text(request.host, sizeof request.host, host);
    request.offset = offset;
    request.port = port;
    state.is_pending = true;
    poll_period_us = busy_period_us;
    fprintf(stderr, "File %s download request offset %d from %s:%d\n", path, offset, host, port);
    unlock_transfer();
}

static void send_piece(const Request &request, RelayPacket &packet, size_t length, int32_t offset,
                       int32_t full_size) {
    put_u16(packet.payload + piece_length_at, static_cast<uint16_t>(length));
    put_u32(packet.payload + piece_offset_at, static_cast<uint32_t>(offset));
    put_u32(packet.payload + piece_full_size_at, static_cast<uint32_t>(full_size));
    set_payload_length(packet, static_cast<uint16_t>(piece_data_at + length));
    relay_to_client(relay_type_file, packet, request.host, static_cast<uint16_t>(request.port));
}

static void report_piece(const Request &request, const FilePiece &piece) {
    switch (piece.result) {
    case PieceResult::read:
        fprintf(stderr, "file %s read %d/%d bytes offset %d full size %d\n", request.path,
                static_cast<int>(piece.length), static_cast<int>(piece_capacity), request.offset,
                static_cast<int>(piece.full_size));
        break;
    case PieceResult::missing:
        fprintf(stderr, "Failed to read file %s\n", request.path);
        break;
    case PieceResult::too_large:
        fprintf(stderr, "File %s is too large to send: %lld bytes\n", request.path,
                static_cast<long long>(piece.full_size));
        break;
    case PieceResult::bad_offset:
        break;
    }
}

// Sends the piece, or that there is no such file, and ends the transfer after its last piece.
// `is_latest` says whether the state still belongs to this request. Call with the lock held.
static void answer(const Request &request, const FilePiece &piece, RelayPacket &packet,
                   bool is_latest) {
    report_piece(request, piece);
    if (piece.result == PieceResult::bad_offset) {
        if (is_latest) {
            reset_state();
        }
        return;
    }
    const bool is_read = piece.result == PieceResult::read;
    const auto full_size = static_cast<int32_t>(is_read ? piece.full_size : 0);
    send_piece(request, packet, piece.length, is_read ? request.offset : 0, full_size);
    if (!is_latest) {
        return;
    }
    state.request.full_size = full_size;
    if (!is_read || int64_t{piece.length} + request.offset >= full_size) {
        reset_state();
    }
}

static FilePiece read_requested_piece(const Request &request, RelayPacket &packet) {
    if (request.is_path_cut) {
        return {PieceResult::missing, 0, 0};
    }
    return read_file_piece(request.path, request.offset, request.full_size,
                           packet.payload + piece_data_at);
}

// Where the list of abandoned readers has that entry; null is room for another. Call with the lock
// held.
static Reader **find_slow_reader(const Reader *entry) {
    Reader **const end = std::end(state.slow_readers);
    Reader **const found = std::find(state.slow_readers, end, entry);
    return found != end ? found : nullptr;
}

// Returns false when the worker has abandoned the reader, which must then end.
static bool serve_request(Reader &reader) {
    RelayPacket packet; // NOLINT(cppcoreguidelines-pro-type-member-init): only the start is used
    const Request &request = reader.request;
    const FilePiece piece = read_requested_piece(request, packet);
    lock_transfer();
    const bool is_latest = reader.number == state.request.number;
    // A client that has requested another file meanwhile would take this piece for that file's.
    if (!reader.is_left || is_latest) {
        answer(request, piece, packet, is_latest);
    }
    reader.is_pause_due = piece.result != PieceResult::bad_offset;
    reader.is_busy = false;
    const bool is_left = reader.is_left;
    if (is_left) {
        *find_slow_reader(&reader) = nullptr;
    }
    unlock_transfer();
    return !is_left;
}

static void wait_for(sem_t &semaphore) {
    while (sem_wait(&semaphore) != 0) {
    }
}

static void *run_reader_thread(void *given_reader) {
    name_thread("file-reader");
    auto *reader = static_cast<Reader *>(given_reader);
    for (;;) {
        wait_for(reader->given);
        if (!serve_request(*reader)) {
            sem_destroy(&reader->given);
            sem_destroy(&reader->served);
            delete reader;
            return nullptr;
        }
        sem_post(&reader->served);
    }
}

// Returns null when the reader cannot be started.
static Reader *start_reader() {
    auto *reader = new (std::nothrow) Reader{};
    if (reader == nullptr) {
        return nullptr;
    }
    sem_init(&reader->given, 0, 0);
    sem_init(&reader->served, 0, 0);
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, run_reader_thread, reader) != 0) {
        delete reader;
        return nullptr;
    }
    pthread_detach(thread);
    return reader;
}

// Returns false when the reader has not served its request within patience_ms.
static bool wait_served(Reader &reader) {
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_nsec += patience_ms * 1000000;
    end.tv_sec += end.tv_nsec / 1000000000;
    end.tv_nsec %= 1000000000;
    int result = 0;
    do {
        result = sem_clockwait(&reader.served, CLOCK_MONOTONIC, &end);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

// Abandons a slow reader. Returns false when it has just finished.
static bool leave(Reader &reader) {
    lock_transfer();
    const bool is_busy = reader.is_busy;
    reader.is_left = is_busy;
    if (is_busy) {
        *find_slow_reader(nullptr) = &reader; // there was room when it was started
        fprintf(stderr, "File %s not read within %ld ms, serving the next request\n",
                reader.request.path, patience_ms);
    }
    unlock_transfer();
    return is_busy;
}

// Makes the reader serve a request. Returns false when the next turn follows without a pause.
// `reader` is null afterwards if it was abandoned.
static bool serve(Reader *&reader, const Request &request) {
    reader->request = request;
    reader->number = request.number;
    reader->is_busy = true;
    sem_post(&reader->given);
    if (!wait_served(*reader)) {
        if (leave(*reader)) {
            reader = nullptr;
            return true;
        }
        wait_for(reader->served);
    }
    return reader->is_pause_due;
}

static void refuse(const Request &request) {
    RelayPacket packet; // NOLINT(cppcoreguidelines-pro-type-member-init): only the start is used
    lock_transfer();
    fprintf(stderr, "%d file reads hang already\n", slow_reader_capacity);
    answer(request, {PieceResult::missing, 0, 0}, packet, request.number == state.request.number);
    unlock_transfer();
}

// Counts a turn without a request: a client that leaves during a transfer must not keep the worker
// busy forever. Call with the lock held.
static void count_empty_turn() {
    ++state.empty_turns;
    if (state.empty_turns > busy_turns) {
        poll_period_us = idle_period_us;
    }
}

static bool asks_for_the_same(const Request &one, const Request &other) {
    return one.offset == other.offset && one.port == other.port &&
           one.is_path_cut == other.is_path_cut && strcmp(one.path, other.path) == 0 &&
           strcmp(one.host, other.host) == 0;
}

// Leaves a repeated request to the abandoned reader that is reading that piece already. Returns
// false when there is none. Call with the lock held.
static bool leave_to_slow_reader(const Request &request) {
    for (Reader *reader : state.slow_readers) {
        if (reader != nullptr && asks_for_the_same(reader->request, request)) {
            reader->number = request.number;
            return true;
        }
    }
    return false;
}

// Returns false when there is no request to serve. `is_room` says whether another reader may be
// abandoned.
static bool take_request(Request &request, bool &is_room) {
    lock_transfer();
    bool is_pending = state.is_pending;
    if (is_pending) {
        request = state.request;
        state.is_pending = false;
        state.empty_turns = 0;
        is_pending = !leave_to_slow_reader(request);
    } else {
        count_empty_turn();
    }
    is_room = find_slow_reader(nullptr) != nullptr;
    unlock_transfer();
    return is_pending;
}

// Takes one turn. Returns false when the next one follows without a pause.
static bool take_turn(Reader *&reader) {
    Request request; // NOLINT(cppcoreguidelines-pro-type-member-init): filled if there is one
    bool is_room = false;
    if (!take_request(request, is_room)) {
        return true;
    }
    if (reader == nullptr && is_room) {
        reader = start_reader();
    }
    if (reader == nullptr) {
        refuse(request);
        return true;
    }
    return serve(reader, request);
}

[[noreturn]] static void *run_worker_thread(void *first_reader) {
    name_thread("file-download");
    auto *reader = static_cast<Reader *>(first_reader);
    for (;;) {
        if (take_turn(reader)) {
            sleep_us(poll_period_us);
        }
    }
}

int init_file_download() {
    Reader *reader = start_reader();
    pthread_t thread{};
    return reader != nullptr && pthread_create(&thread, nullptr, run_worker_thread, reader) == 0
               ? 0
               : -1;
}
