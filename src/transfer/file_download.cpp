#include "transfer/file_download.h"

#include "base/ipv4.h"
#include "base/pause.h"
#include "base/relaxed.h"
#include "base/text.h"
#include "net/relay.h"
#include "transfer/transfer_lock.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

static_assert(sizeof(off_t) == 8); // on a 32-bit board too, or a large file cannot be opened

constexpr uint32_t idle_period_us = 30000;
constexpr uint32_t busy_period_us = 100; // while a transfer is in progress
constexpr uint32_t busy_turns = 50000;   // without a request: then the client has gone
constexpr size_t path_size = 256;

// The download state; everything but the period is read and written under the transfer lock.
static struct {
    char path[path_size];          // of the pending request; empty: none
    char transfer_path[path_size]; // of the transfer that full_size belongs to
    char host[ipv4_text_size];     // who asked
    int32_t port;
    int32_t offset;
    int32_t full_size;    // of the file; 0: not known yet
    uint32_t empty_turns; // of the worker since the last request
} state;
static Relaxed<uint32_t> poll_period_us{idle_period_us};

// With the lock held.
static void reset_state() {
    state.path[0] = '\0';
    state.transfer_path[0] = '\0';
    state.host[0] = '\0';
    state.port = 0;
    state.offset = 0;
    state.full_size = 0;
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
    copy_text(state.path, sizeof state.path, path);
    // The size of the file belongs to one transfer: another file begins another.
    if (strcmp(state.transfer_path, state.path) != 0) {
        copy_text(state.transfer_path, sizeof state.transfer_path, state.path);
        state.full_size = 0;
    }
    copy_text(state.host, sizeof state.host, host);
    state.offset = offset;
    state.port = port;
    poll_period_us = busy_period_us;
    fprintf(stderr, "File %s download request offset %d from %s:%d\n", path, offset, host, port);
    unlock_transfer();
}

static bool is_regular(const struct stat &status) {
    return S_ISREG(status.st_mode);
}

// Opens the file of the request and finds out its size, once in a transfer. Negative for what
// cannot be opened and for what is no regular file.
static int open_file() {
    // Looked at first: opening a device may already do something.
    struct stat status {};
    if (stat(state.path, &status) != 0 || !is_regular(status)) {
        return -1;
    }
    // Without waiting: some files of /proc count as regular, and a read of them waits for news.
    const int fd = open(state.path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return -1;
    }
    // Looked at again: by now the path may lead elsewhere.
    if (fstat(fd, &status) != 0 || !is_regular(status)) {
        close(fd);
        return -1;
    }
    if (state.full_size == 0) {
        constexpr off_t largest = std::numeric_limits<int32_t>::max(); // that a piece can tell
        state.full_size = static_cast<int32_t>(std::min(status.st_size, largest));
    }
    return fd;
}

static void send_piece(RelayPacket &packet, size_t length, int32_t offset, int32_t full_size) {
    put_u16(packet.payload + piece_length_at, static_cast<uint16_t>(length));
    put_u32(packet.payload + piece_offset_at, static_cast<uint32_t>(offset));
    put_u32(packet.payload + piece_full_size_at, static_cast<uint32_t>(full_size));
    set_payload_length(packet, static_cast<uint16_t>(piece_data_at + length));
    relay_to_client(relay_type_file, packet, state.host, static_cast<uint16_t>(state.port));
}

// Reads until the piece is full, the file ends or nothing more is there without waiting.
static size_t read_piece(int fd, uint8_t *data) {
    size_t used = 0;
    while (used < piece_capacity) {
        const ssize_t length = TEMP_FAILURE_RETRY(read(fd, data + used, piece_capacity - used));
        if (length <= 0) {
            break;
        }
        used += static_cast<size_t>(length);
    }
    return used;
}

// Serves the pending request, with the lock held. False: the offset was no place in the file, and
// the next turn follows at once.
static bool serve_request() {
    RelayPacket packet; // NOLINT(cppcoreguidelines-pro-type-member-init): as long as is sent
    const int fd = open_file();
    if (fd < 0) {
        fprintf(stderr, "Failed to read file %s\n", state.path);
        send_piece(packet, 0, 0, 0);
        reset_state();
        return true;
    }
    if (lseek(fd, state.offset, SEEK_SET) < 0) {
        close(fd);
        reset_state();
        return false;
    }
    const size_t length = read_piece(fd, packet.payload + piece_data_at);
    close(fd);
    fprintf(stderr, "file %s read %d/%d bytes offset %d full size %d\n", state.path,
            static_cast<int>(length), static_cast<int>(piece_capacity), state.offset,
            state.full_size);
    send_piece(packet, length, state.offset, state.full_size);
    if (static_cast<int64_t>(length) + state.offset >= state.full_size) {
        reset_state();
    }
    state.path[0] = '\0';
    return true;
}

// With the lock held, at the end of a turn without a request: a client that leaves in the middle of
// a transfer must not keep the worker busy for ever.
static void count_empty_turn() {
    ++state.empty_turns;
    if (state.empty_turns > busy_turns) {
        poll_period_us = idle_period_us;
    }
}

// One turn, with the lock held. False: the next one follows without a pause.
static bool take_turn() {
    if (state.path[0] == '\0') {
        count_empty_turn();
        return true;
    }
    state.empty_turns = 0;
    return serve_request();
}

[[noreturn]] static void *run_worker_thread(void * /*unused*/) {
    name_thread("file-download");
    for (;;) {
        lock_transfer();
        const bool is_pause_due = take_turn();
        unlock_transfer();
        if (is_pause_due) {
            sleep_us(poll_period_us);
        }
    }
}

int init_file_download() {
    pthread_t thread{};
    return pthread_create(&thread, nullptr, run_worker_thread, nullptr) == 0 ? 0 : -1;
}
