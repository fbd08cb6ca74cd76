// Feeds arbitrary datagrams to one block of the reliable transport, mixed with updates, receives,
// sends and failing allocations, and checks the invariants that must hold whatever arrives. The
// input is a list of operations. Most datagrams get a nearly valid header, because a random one is
// rarely accepted.
#include "ikcp.h"
#include "input.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

uint32_t calls_until_failure = 0; // 0: none fails
size_t live = 0;

void *take(size_t size) {
    if (calls_until_failure > 0 && --calls_until_failure == 0) {
        return nullptr;
    }
    ++live;
    return std::malloc(size);
}

void give(void *memory) {
    --live;
    std::free(memory);
}

// Checks that the list is linked in both directions, has `count` elements and, with `by_sn`, is
// sorted.
void check_list(const IkcpList &list, uint32_t count, bool by_sn) {
    const IkcpSegment *previous = nullptr;
    for (const IkcpSegment *segment = list.first; segment != nullptr; segment = segment->next) {
        check(segment->previous == previous && segment->len <= segment->capacity);
        check(!by_sn || previous == nullptr ||
              static_cast<int32_t>(segment->sn - previous->sn) > 0);
        previous = segment;
        check(count-- > 0);
    }
    check(previous == list.last && count == 0);
}

void check_block(const ikcpcb *kcp) {
    check_list(kcp->snd_queue, kcp->nsnd_que, false);
    check_list(kcp->snd_buf, kcp->nsnd_buf, true);
    check_list(kcp->rcv_queue, kcp->nrcv_que, false);
    check_list(kcp->rcv_buf, kcp->nrcv_buf, true);
    check(kcp->nrcv_que <= kcp->rcv_wnd && kcp->nrcv_buf <= kcp->rcv_wnd);
    check(kcp->ackcount <= kcp->ackblock && kcp->ackblock <= ikcp_max_acks);
    check(static_cast<int32_t>(kcp->snd_nxt - kcp->snd_una) >= 0);
    check(kcp->rx_rto >= kcp->rx_minrto && kcp->rx_rto <= 60000);
    check(kcp->ssthresh >= 2);
    check(kcp->probe_wait <= 120000);
}

int take_datagram(const char *buf, int len, ikcpcb *, void *user) {
    // Read every byte, so that a memory checker notices one that was never written.
    uint32_t *sum = static_cast<uint32_t *>(user);
    check(len >= static_cast<int>(ikcp_header_size));
    for (int i = 0; i < len; ++i) {
        *sum += static_cast<uint8_t>(buf[i]);
    }
    return len;
}

void append_32(std::vector<char> &bytes, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        bytes.push_back(static_cast<char>(value >> (8 * i)));
    }
}

void append_segment(std::vector<char> &bytes, Input &input, const ikcpcb *kcp) {
    const uint32_t kind = input.byte();
    const uint32_t len = kind < 240 ? kind % 32 : input.near(64);
    const uint32_t shown = kind < 200 ? len : input.near(len + 64);
    append_32(bytes, input.byte() == 255 ? input.word() : kcp->conv);
    bytes.push_back(static_cast<char>(kind < 250 ? 81 + kind % 4 : input.byte()));
    bytes.push_back(static_cast<char>(input.byte() % 4 == 0 ? input.byte() : 0));
    const uint32_t wnd = input.byte() % 4 == 0 ? input.word() : 64;
    bytes.push_back(static_cast<char>(wnd));
    bytes.push_back(static_cast<char>(wnd >> 8));
    append_32(bytes, input.near(kcp->current));
    append_32(bytes, kind % 4 == 0 ? input.near(kcp->rcv_nxt) : input.near(kcp->snd_una + 32));
    append_32(bytes, input.near(kcp->snd_una + 60));
    append_32(bytes, shown);
    bytes.insert(bytes.end(), std::min<uint32_t>(len, 2000), 'x');
}

void input_exactly(ikcpcb *kcp, const std::vector<char> &bytes) {
    // A copy without spare room after it.
    char *exact = static_cast<char *>(std::malloc(std::max<size_t>(bytes.size(), 1)));
    if (!bytes.empty()) {
        std::memcpy(exact, bytes.data(), bytes.size());
    }
    const int result = ikcp_input(kcp, exact, static_cast<long>(bytes.size()));
    check(result <= 0 && result >= -2);
    check(bytes.size() >= ikcp_header_size || result == -1);
    std::free(exact);
}

void receive(ikcpcb *kcp, int len) {
    const int expected = ikcp_peeksize(kcp);
    const int room = std::abs(len);
    char *buffer = static_cast<char *>(std::malloc(static_cast<size_t>(room) + 1));
    const int size = ikcp_recv(kcp, buffer, len);
    check(size == (expected > room ? -3 : expected) || (expected == -1 && size == -2));
    std::free(buffer);
}

void operate(ikcpcb *kcp, Input &input) {
    static const char text[6000] = {};
    std::vector<char> bytes;
    switch (input.byte() % 12) {
    case 0: // any bytes
        for (uint32_t size = input.byte(); size > 0 && input.left > 0; --size) {
            bytes.push_back(static_cast<char>(input.byte()));
        }
        input_exactly(kcp, bytes);
        break;
    case 1:
    case 2:
    case 3:
    case 4: // a nearly valid datagram
        for (uint32_t count = input.byte() % 8 + 1; count > 0; --count) {
            append_segment(bytes, input, kcp);
        }
        bytes.resize(bytes.size() - std::min<size_t>(bytes.size(), input.byte() % 64 == 0 ? 1 : 0));
        input_exactly(kcp, bytes);
        break;
    case 5:
        receive(kcp, static_cast<int>(input.word()) - 2000);
        break;
    case 6:
        check(ikcp_send(kcp, text, static_cast<int>(input.word() % sizeof text)) <= 0);
        break;
    case 7:
    case 8:
        ikcp_update(kcp, kcp->current + input.byte() * 4);
        break;
    case 9: {
        const uint32_t time = input.near(kcp->current);
        check(ikcp_check(kcp, time) - time <= kcp->interval);
        ikcp_update(kcp, time + (input.word() << 8));
        break;
    }
    case 10:
        switch (input.byte() % 4) {
        case 0:
            ikcp_setmtu(kcp, static_cast<int>(input.word() % 2000));
            break;
        case 1:
            ikcp_nodelay(kcp, static_cast<int>(input.byte()) - 1,
                         static_cast<int>(input.byte()) - 1, static_cast<int>(input.byte() % 6) - 1,
                         static_cast<int>(input.byte() % 3) - 1);
            // The block itself applies the new bound only with the next sample.
            kcp->rx_rto = std::max(kcp->rx_rto, kcp->rx_minrto);
            break;
        case 2:
            kcp->stream = static_cast<int32_t>(input.byte() % 2);
            break;
        default:
            ikcp_flush(kcp);
            break;
        }
        break;
    default:
        calls_until_failure = input.byte() % 16;
        break;
    }
}

} // namespace

// NOLINTBEGIN(readability-identifier-naming): the name the fuzzer calls
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // NOLINTEND(readability-identifier-naming)
    Input input{data, size};
    uint32_t sum = 0;
    calls_until_failure = 0;
    ikcp_allocator(take, give);
    ikcpcb *kcp = ikcp_create(input.byte() % 2 == 0 ? 1 : input.word(), &sum);
    kcp->output = take_datagram;
    kcp->stream = static_cast<int32_t>(input.byte() % 2);
    kcp->nocwnd = static_cast<int32_t>(input.byte() % 2);
    kcp->fastresend = static_cast<int32_t>(input.byte() % 3);
    kcp->rcv_wnd = input.byte() + 1;
    kcp->snd_una = input.near(0);
    kcp->snd_nxt = kcp->snd_una;
    kcp->rcv_nxt = input.near(0);
    ikcp_update(kcp, input.near(0));
    while (input.left > 0) {
        operate(kcp, input);
        check_block(kcp);
    }
    ikcp_release(kcp);
    check(live == 0);
    return 0;
}
