#include "net/tcp_stream.h"

#include "base/pause.h"
#include "base/relaxed.h"
#include "net/frame_queue.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>

constexpr int64_t check_ns = 1'000'000'000;
constexpr int64_t drop_report_ns = 60'000'000'000;
constexpr int no_client = -1;

// Guards the queue, `client` and `in_use`; `changed` signals changes to any of them.
static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
static FrameQueue queue;
static int client = no_client;
static bool in_use; // the sender uses `client` and the oldest frame
// Is there a client? Written under the mutex.
static Relaxed<bool> connected;
// Frames that did not fit since the last line about them.
static Relaxed<uint32_t> dropped;

bool tcp_client_connected() {
    return connected;
}

void tcp_send_frame(const uint8_t *data, size_t length) {
    if (length == 0) {
        return;
    }
    pthread_mutex_lock(&mutex);
    if (connected) {
        if (queue_frame(queue, data, length)) {
            pthread_cond_broadcast(&changed);
        } else {
            dropped.add(1);
        }
    }
    pthread_mutex_unlock(&mutex);
}

void begin_tcp_stream(int socket) {
    pthread_mutex_lock(&mutex);
    client = socket;
    connected = true;
    pthread_cond_broadcast(&changed);
    pthread_mutex_unlock(&mutex);
}

void end_tcp_stream() {
    pthread_mutex_lock(&mutex);
    connected = false;
    shutdown(client, SHUT_RDWR); // wakes a blocked send
    while (in_use) {
        pthread_cond_wait(&changed, &mutex);
    }
    empty_frame_queue(queue);
    client = no_client;
    pthread_mutex_unlock(&mutex);
}

// Shuts down the connection of a lost client; the thread that reads from it notices and closes it.
// TCP's own keep-alive does so only when no data is in flight.
static void check_client(int socket) {
    tcp_info info{};
    socklen_t length = sizeof info;
    if (getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
        tcp_client_vanished(info.tcpi_unacked, info.tcpi_probes, info.tcpi_last_ack_recv)) {
        shutdown(socket, SHUT_RDWR);
    }
}

static void report_drops(int64_t now) {
    static int64_t next_report_ns;
    const uint32_t frames = dropped;
    if (frames == 0 || now < next_report_ns) {
        return;
    }
    dropped.add(-frames);
    next_report_ns = now + drop_report_ns;
    fprintf(stderr, "TCP server: Dropped %u frames, the TCP client reads too slowly\n", frames);
}

// Checks the client and reports dropped frames, once a second while there is a client.
static void check_at_times(int socket) {
    static int64_t next_check_ns;
    const int64_t now = monotonic_ns();
    if (now >= next_check_ns) {
        next_check_ns = now + check_ns;
        check_client(socket);
        report_drops(now);
    }
}

// Sends a frame, however long it takes, unless the connection ends.
static void send_whole(int socket, const uint8_t *data, size_t length) {
    while (length > 0 && connected) {
        // A client that has just left must not raise SIGPIPE.
        const ssize_t sent = send(socket, data, length, MSG_NOSIGNAL);
        if (sent < 0 && errno != EAGAIN && errno != EINTR) {
            return;
        }
        data += sent > 0 ? sent : 0;
        length -= sent > 0 ? static_cast<size_t>(sent) : 0;
        check_at_times(socket);
    }
}

// Waits until there is a client and a frame for it, or for a second. Call with the mutex held.
static void wait_for_work() {
    while (!connected || oldest_frame(queue) == nullptr) {
        if (!connected) {
            pthread_cond_wait(&changed, &mutex);
            continue;
        }
        timespec end{};
        clock_gettime(CLOCK_MONOTONIC, &end);
        ++end.tv_sec;
        const int result = pthread_cond_clockwait(&changed, &mutex, CLOCK_MONOTONIC, &end);
        if (result == ETIMEDOUT && connected) {
            return;
        }
    }
}

[[noreturn]] static void *run_send_thread(void * /*unused*/) {
    name_thread("tcp-send");
    pthread_mutex_lock(&mutex);
    for (;;) {
        wait_for_work();
        const QueuedFrame *frame = oldest_frame(queue);
        const int socket = client;
        in_use = true;
        pthread_mutex_unlock(&mutex);
        if (frame != nullptr) {
            send_whole(socket, queue.bytes + frame->at, frame->length);
        }
        check_at_times(socket);
        pthread_mutex_lock(&mutex);
        in_use = false;
        if (frame != nullptr) {
            drop_oldest_frame(queue);
        }
        pthread_cond_broadcast(&changed);
    }
}

bool start_tcp_stream() {
    pthread_t thread{};
    return pthread_create(&thread, nullptr, run_send_thread, nullptr) == 0;
}
