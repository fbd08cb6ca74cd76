#include "transfer/kcp_server.h"

#include "base/clock.h"
#include "base/pause.h"
#include "net/udp_endpoint.h"
#include "transfer/transfer_lock.h"

#include <ikcp.h>
#include <pthread.h>

constexpr uint16_t receive_size = 65000;
constexpr int update_interval_ms = 30;
constexpr int first_fast_resend = 1;
constexpr int fast_resend = 2;
constexpr int datagram_size = 1400;

static UdpEndpoint kcp_endpoint;
static uint8_t datagram_buffer[receive_size];
// Filled by ikcp_recv; used by the receive thread only.
static char data_buffer[receive_size];
// Null until the server is started. All operations on it need the transfer lock.
static ikcpcb *control_block;
static KcpDataHandler handle_data;

static int send_datagram(const char *data, int length, ikcpcb * /*kcp*/, void * /*user*/) {
    return udp_endpoint_reply(kcp_endpoint, data, static_cast<uint16_t>(length));
}

static ikcpcb *create_control_block() {
    ikcpcb *kcp = ikcp_create(kcp_server_conv, nullptr);
    if (kcp == nullptr) {
        return nullptr;
    }
    kcp->output = send_datagram;
    kcp->stream = 1;
    kcp->fastresend = first_fast_resend;
    ikcp_nodelay(kcp, 0, update_interval_ms, fast_resend, 1);
    if (ikcp_setmtu(kcp, datagram_size) != 0) {
        ikcp_release(kcp);
        return nullptr;
    }
    return kcp;
}

static void on_packet(uint8_t *data, uint16_t length, const char * /*host*/, uint16_t /*port*/) {
    lock_transfer();
    ikcp_input(control_block, reinterpret_cast<const char *>(data), length);
    int received = 0;
    while ((received = ikcp_recv(control_block, data_buffer, sizeof data_buffer)) >= 0) {
        if (handle_data != nullptr) {
            handle_data(data_buffer, received);
        }
    }
    unlock_transfer();
}

static void *run_receive_thread(void * /*unused*/) {
    name_thread("kcp-rx");
    udp_endpoint_run(kcp_endpoint);
}

[[noreturn]] static void *run_update_thread(void * /*unused*/) {
    name_thread("kcp-update");
    for (;;) {
        lock_transfer();
        ikcp_update(control_block, now_ms());
        unlock_transfer();
        sleep_us(update_interval_ms * 1000);
    }
}

int init_kcp_server(uint16_t port, KcpDataHandler handler) {
    control_block = create_control_block();
    if (control_block == nullptr) {
        return -1;
    }
    handle_data = handler;
    if (udp_endpoint_open(kcp_endpoint, port, run_receive_thread) != 0) {
        ikcp_release(control_block);
        control_block = nullptr;
        return -1;
    }
    kcp_endpoint.on_packet = on_packet;
    kcp_endpoint.buffer_size = receive_size;
    kcp_endpoint.buffer.store(datagram_buffer, std::memory_order_release);
    pthread_t thread{};
    return pthread_create(&thread, nullptr, run_update_thread, nullptr) == 0 ? 0 : -1;
}

uint16_t kcp_server_port() {
    return static_cast<uint16_t>(kcp_endpoint.local_port);
}

int kcp_server_send(const char *data, int length) {
    lock_transfer();
    const int result = control_block != nullptr ? ikcp_send(control_block, data, length) : -1;
    unlock_transfer();
    return result;
}
