#include "ikcp.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

// Blocks and segments are freed without a destructor call.
static_assert(std::is_trivially_destructible_v<ikcpcb>);
static_assert(std::is_trivial_v<IkcpSegment> && std::is_trivial_v<IkcpAck>);

namespace {

constexpr uint32_t first_probe_wait = 7000;
constexpr uint32_t longest_probe_wait = 120000;
constexpr int32_t longest_rto = 60000;
constexpr uint32_t longest_segment_rto = 1U << 30; // keeps time differences below 2^31
constexpr int32_t clock_jump = 10000;
constexpr int nodelay_minrto = 30;
constexpr int normal_minrto = 100;
constexpr uint32_t least_ssthresh = 2;
constexpr uint32_t first_ackblock = 8;

struct Header {
    uint32_t conv;
    uint8_t cmd;
    uint8_t frg;
    uint16_t wnd;
    uint32_t ts;
    uint32_t sn;
    uint32_t una;
    uint32_t len;
};

// What the segments of one datagram acknowledged.
struct Acknowledged {
    bool any;
    uint32_t highest; // sn
};

void *(*take_memory)(size_t) = std::malloc;
void (*give_memory)(void *) = std::free;

} // namespace

// The owner's mistakes end the process even in builds that drop assert().
[[noreturn]] static void fail_check(const char *text, const char *function) {
    std::fprintf(stderr, "ikcp: assertion failed: %s: %s\n", text, function);
    std::abort();
}

// How far `a` is ahead of `b` when sequence numbers or times wrap at 2^32; negative: behind it.
static int32_t distance(uint32_t a, uint32_t b) {
    return static_cast<int32_t>(a - b);
}

static uint32_t bytes_of(uint32_t segments, uint32_t mss) {
    return static_cast<uint32_t>(
        std::min<uint64_t>(static_cast<uint64_t>(segments) * mss, UINT32_MAX));
}

static void put_16(char *at, uint32_t value) {
    at[0] = static_cast<char>(value & 0xFFU);
    at[1] = static_cast<char>((value >> 8) & 0xFFU);
}

static void put_32(char *at, uint32_t value) {
    put_16(at, value);
    put_16(at + 2, value >> 16);
}

static uint8_t get_8(const char *at) {
    return static_cast<uint8_t>(*at);
}

static uint16_t get_16(const char *at) {
    return static_cast<uint16_t>(get_8(at) | (get_8(at + 1) << 8));
}

static uint32_t get_32(const char *at) {
    return static_cast<uint32_t>(get_16(at)) | (static_cast<uint32_t>(get_16(at + 2)) << 16);
}

static void write_header(char *at, const Header &header) {
    put_32(at + ikcp_offset_conv, header.conv);
    at[ikcp_offset_cmd] = static_cast<char>(header.cmd);
    at[ikcp_offset_frg] = static_cast<char>(header.frg);
    put_16(at + ikcp_offset_wnd, header.wnd);
    put_32(at + ikcp_offset_ts, header.ts);
    put_32(at + ikcp_offset_sn, header.sn);
    put_32(at + ikcp_offset_una, header.una);
    put_32(at + ikcp_offset_len, header.len);
}

static Header read_header(const char *at) {
    return Header{.conv = get_32(at + ikcp_offset_conv),
                  .cmd = get_8(at + ikcp_offset_cmd),
                  .frg = get_8(at + ikcp_offset_frg),
                  .wnd = get_16(at + ikcp_offset_wnd),
                  .ts = get_32(at + ikcp_offset_ts),
                  .sn = get_32(at + ikcp_offset_sn),
                  .una = get_32(at + ikcp_offset_una),
                  .len = get_32(at + ikcp_offset_len)};
}

// Returns null when memory runs out. All fields but data and capacity are 0.
static IkcpSegment *new_segment(uint32_t capacity) {
    void *memory = take_memory(sizeof(IkcpSegment) + capacity);
    if (memory == nullptr) {
        return nullptr;
    }
    IkcpSegment *segment = new (memory) IkcpSegment{};
    segment->capacity = capacity;
    segment->data = static_cast<char *>(memory) + sizeof(IkcpSegment);
    return segment;
}

// Inserts the segment after `place`, which is in the list; null inserts it first.
static void insert_behind(IkcpList &list, IkcpSegment *place, IkcpSegment *segment) {
    IkcpSegment *next = place != nullptr ? place->next : list.first;
    segment->previous = place;
    segment->next = next;
    (place != nullptr ? place->next : list.first) = segment;
    (next != nullptr ? next->previous : list.last) = segment;
}

static void append(IkcpList &list, IkcpSegment *segment) {
    insert_behind(list, list.last, segment);
}

static void unlink_segment(IkcpList &list, IkcpSegment *segment) {
    IkcpSegment *previous = segment->previous;
    IkcpSegment *next = segment->next;
    (previous != nullptr ? previous->next : list.first) = next;
    (next != nullptr ? next->previous : list.last) = previous;
}

static void free_all(IkcpList &list) {
    for (IkcpSegment *segment = list.first; segment != nullptr;) {
        IkcpSegment *next = segment->next;
        give_memory(segment);
        segment = next;
    }
    list = IkcpList{};
}

static uint16_t free_window(const ikcpcb *kcp) {
    if (kcp->nrcv_que >= kcp->rcv_wnd) {
        return 0;
    }
    return static_cast<uint16_t>(std::min<uint32_t>(kcp->rcv_wnd - kcp->nrcv_que, UINT16_MAX));
}

void ikcp_allocator(void *(*new_malloc)(size_t), void (*new_free)(void *)) {
    take_memory = new_malloc != nullptr ? new_malloc : std::malloc;
    give_memory = new_free != nullptr ? new_free : std::free;
}

static size_t buffer_size(uint32_t mtu) {
    return (static_cast<size_t>(mtu) + ikcp_header_size) * 3;
}

ikcpcb *ikcp_create(uint32_t conv, void *user) {
    void *memory = take_memory(sizeof(ikcpcb));
    if (memory == nullptr) {
        return nullptr;
    }
    ikcpcb *kcp = new (memory) ikcpcb{};
    kcp->conv = conv;
    kcp->user = user;
    kcp->buffer = static_cast<char *>(take_memory(buffer_size(kcp->mtu)));
    if (kcp->buffer == nullptr) {
        give_memory(memory);
        return nullptr;
    }
    return kcp;
}

void ikcp_release(ikcpcb *kcp) {
    if (kcp == nullptr) {
        return;
    }
    free_all(kcp->snd_queue);
    free_all(kcp->rcv_queue);
    free_all(kcp->snd_buf);
    free_all(kcp->rcv_buf);
    if (kcp->acklist != nullptr) {
        give_memory(kcp->acklist);
    }
    give_memory(kcp->buffer);
    give_memory(kcp);
}

static size_t longest_on_wire(const IkcpList &list) {
    uint32_t len = 0;
    for (const IkcpSegment *segment = list.first; segment != nullptr; segment = segment->next) {
        len = std::max(len, segment->len);
    }
    return ikcp_header_size + len;
}

int ikcp_setmtu(ikcpcb *kcp, int mtu) {
    if (mtu < ikcp_min_mtu) {
        return -1;
    }
    const uint32_t new_mtu = static_cast<uint32_t>(mtu);
    if (new_mtu > ikcp_max_len + ikcp_header_size) {
        return -2;
    }
    // Segments made for a larger mtu must still fit.
    const size_t size = std::max(
        {buffer_size(new_mtu), longest_on_wire(kcp->snd_queue), longest_on_wire(kcp->snd_buf)});
    char *buffer = static_cast<char *>(take_memory(size));
    if (buffer == nullptr) {
        return -2;
    }
    give_memory(kcp->buffer);
    kcp->buffer = buffer;
    kcp->mtu = new_mtu;
    kcp->mss = new_mtu - static_cast<uint32_t>(ikcp_header_size);
    return 0;
}

int ikcp_nodelay(ikcpcb *kcp, int nodelay, int interval, int resend, int nc) {
    if (nodelay >= 0) {
        kcp->nodelay = static_cast<uint32_t>(nodelay);
        kcp->rx_minrto = nodelay != 0 ? nodelay_minrto : normal_minrto;
    }
    if (interval >= 0) {
        kcp->interval = static_cast<uint32_t>(std::clamp(interval, 10, 5000));
    }
    if (resend >= 0) {
        kcp->fastresend = resend;
    }
    if (nc >= 0) {
        kcp->nocwnd = nc;
    }
    return 0;
}

// Splits the data into `count` new segments in `pieces`. Returns false, with `pieces` empty, when
// memory runs out.
static bool cut(const ikcpcb *kcp, const char *data, uint32_t len, uint32_t count,
                IkcpList &pieces) {
    const bool stream = kcp->stream != 0;
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t size = std::min(len, kcp->mss);
        // In stream mode a later send fills the rest of the segment.
        IkcpSegment *segment = new_segment(stream ? kcp->mss : size);
        if (segment == nullptr) {
            free_all(pieces);
            return false;
        }
        if (size > 0) {
            std::memcpy(segment->data, data, size);
        }
        segment->len = size;
        segment->frg = stream ? 0 : count - i - 1;
        append(pieces, segment);
        data += size;
        len -= size;
    }
    return true;
}

int ikcp_send(ikcpcb *kcp, const char *buffer, int len) {
    if (kcp->mss == 0) {
        fail_check("kcp->mss > 0", __PRETTY_FUNCTION__);
    }
    if (len < 0 || (buffer == nullptr && len > 0)) {
        return -1;
    }
    const bool stream = kcp->stream != 0;
    const uint32_t size = static_cast<uint32_t>(len);
    if (stream && size == 0) {
        return 0;
    }

    IkcpSegment *last = kcp->snd_queue.last;
    uint32_t filled = 0; // bytes that go into `last`
    if (stream && last != nullptr && last->len < kcp->mss) {
        filled = std::min(size, kcp->mss - last->len);
    }
    const uint32_t rest = size - filled;
    uint32_t count = rest / kcp->mss + (rest % kcp->mss != 0 ? 1 : 0);
    if (size == 0) {
        count = 1;
    }
    if (count > kcp->rcv_wnd || (!stream && count > ikcp_max_fragments)) {
        return -2;
    }

    // Allocate everything first, so that a failure leaves the queue unchanged.
    IkcpSegment *larger = nullptr;
    if (filled > 0 && filled > last->capacity - last->len) {
        larger = new_segment(kcp->mss);
        if (larger == nullptr) {
            return -2;
        }
    }
    IkcpList pieces;
    if (!cut(kcp, buffer + filled, rest, count, pieces)) {
        if (larger != nullptr) {
            give_memory(larger);
        }
        return -2;
    }

    if (larger != nullptr) {
        std::memcpy(larger->data, last->data, last->len);
        larger->len = last->len;
        larger->frg = last->frg;
        unlink_segment(kcp->snd_queue, last);
        append(kcp->snd_queue, larger);
        give_memory(last);
        last = larger;
    }
    if (filled > 0) {
        std::memcpy(last->data + last->len, buffer, filled);
        last->len += filled;
    }
    while (pieces.first != nullptr) {
        IkcpSegment *segment = pieces.first;
        unlink_segment(pieces, segment);
        append(kcp->snd_queue, segment);
    }
    kcp->nsnd_que += count;
    return 0;
}

// A message has as many segments as the frg of its first one says, whatever the others say.
int ikcp_peeksize(const ikcpcb *kcp) {
    const IkcpSegment *segment = kcp->rcv_queue.first;
    if (segment == nullptr || kcp->nrcv_que < segment->frg + 1) {
        return -1;
    }
    uint32_t size = 0; // at most 256 * ikcp_max_len
    for (uint32_t left = segment->frg + 1; left > 0; --left) {
        size += segment->len;
        segment = segment->next;
    }
    return static_cast<int>(size);
}

static void move_received(ikcpcb *kcp) {
    while (kcp->rcv_buf.first != nullptr && kcp->rcv_buf.first->sn == kcp->rcv_nxt &&
           kcp->nrcv_que < kcp->rcv_wnd) {
        IkcpSegment *segment = kcp->rcv_buf.first;
        unlink_segment(kcp->rcv_buf, segment);
        --kcp->nrcv_buf;
        append(kcp->rcv_queue, segment);
        ++kcp->nrcv_que;
        ++kcp->rcv_nxt;
    }
}

int ikcp_recv(ikcpcb *kcp, char *buffer, int len) {
    if (kcp->rcv_queue.first == nullptr) {
        return -1;
    }
    const int size = ikcp_peeksize(kcp);
    if (size < 0) {
        return -2;
    }
    const bool peek = len < 0;
    const int64_t room = std::abs(static_cast<int64_t>(len));
    if (size > room) {
        return -3;
    }

    const bool was_full = kcp->nrcv_que >= kcp->rcv_wnd;
    IkcpSegment *segment = kcp->rcv_queue.first;
    for (uint32_t left = segment->frg + 1; left > 0; --left) {
        IkcpSegment *next = segment->next;
        if (buffer != nullptr && segment->len > 0) {
            std::memcpy(buffer, segment->data, segment->len);
            buffer += segment->len;
        }
        if (!peek) {
            unlink_segment(kcp->rcv_queue, segment);
            --kcp->nrcv_que;
            give_memory(segment);
        }
        segment = next;
    }
    if (!peek) {
        move_received(kcp);
        if (was_full) {
            kcp->probe |= ikcp_probe_tell;
        }
    }
    return size;
}

void ikcp_ack_push(ikcpcb *kcp, uint32_t sn, uint32_t ts) {
    if (kcp->ackcount == kcp->ackblock) {
        if (kcp->ackblock >= ikcp_max_acks) {
            return;
        }
        const uint32_t block = kcp->ackblock != 0 ? kcp->ackblock * 2 : first_ackblock;
        IkcpAck *list = static_cast<IkcpAck *>(take_memory(block * sizeof(IkcpAck)));
        if (list == nullptr) {
            return;
        }
        if (kcp->acklist != nullptr) {
            std::memcpy(list, kcp->acklist, kcp->ackcount * sizeof(IkcpAck));
            give_memory(kcp->acklist);
        }
        kcp->acklist = list;
        kcp->ackblock = block;
    }
    kcp->acklist[kcp->ackcount] = IkcpAck{.sn = sn, .ts = ts};
    ++kcp->ackcount;
}

static void take_rtt(ikcpcb *kcp, int32_t rtt) {
    // The peer chooses rtt, so use 64 bits: no sum can overflow.
    int64_t srtt = kcp->rx_srtt;
    int64_t rttval = kcp->rx_rttval;
    if (srtt == 0) {
        srtt = rtt;
        rttval = rtt / 2;
    } else {
        rttval = (3 * rttval + std::abs(rtt - srtt)) / 4;
        srtt = std::max<int64_t>((7 * srtt + rtt) / 8, 1);
    }
    kcp->rx_srtt = static_cast<int32_t>(srtt);
    kcp->rx_rttval = static_cast<int32_t>(rttval);
    const int64_t rto = srtt + std::max<int64_t>(kcp->interval, 4 * rttval);
    kcp->rx_rto = static_cast<int32_t>(
        std::max<int64_t>(std::min<int64_t>(rto, longest_rto), kcp->rx_minrto));
}

static void drop_sent(ikcpcb *kcp, IkcpSegment *segment) {
    unlink_segment(kcp->snd_buf, segment);
    --kcp->nsnd_buf;
    give_memory(segment);
    kcp->snd_una = kcp->snd_buf.first != nullptr ? kcp->snd_buf.first->sn : kcp->snd_nxt;
}

static void drop_below(ikcpcb *kcp, uint32_t una) {
    while (kcp->snd_buf.first != nullptr && distance(kcp->snd_buf.first->sn, una) < 0) {
        drop_sent(kcp, kcp->snd_buf.first);
    }
}

static void drop_acknowledged(ikcpcb *kcp, uint32_t sn) {
    IkcpSegment *segment = kcp->snd_buf.first;
    while (segment != nullptr && distance(segment->sn, sn) < 0) {
        segment = segment->next;
    }
    if (segment != nullptr && segment->sn == sn) {
        drop_sent(kcp, segment);
    }
}

static void take_push(ikcpcb *kcp, const Header &header, const char *data) {
    if (distance(header.sn, kcp->rcv_nxt + kcp->rcv_wnd) >= 0) {
        return;
    }
    if (distance(header.sn, kcp->rcv_nxt) < 0) {
        // Already delivered: the ack was lost, so send another.
        ikcp_ack_push(kcp, header.sn, header.ts);
        return;
    }
    // Search from the end, where most segments belong.
    IkcpSegment *place = kcp->rcv_buf.last;
    while (place != nullptr && distance(place->sn, header.sn) > 0) {
        place = place->previous;
    }
    const bool duplicate = place != nullptr && place->sn == header.sn;
    if (!duplicate) {
        IkcpSegment *segment = new_segment(header.len);
        if (segment == nullptr) {
            return; // without an ack, so that it is sent again
        }
        segment->sn = header.sn;
        segment->frg = header.frg;
        segment->len = header.len;
        if (header.len > 0) {
            std::memcpy(segment->data, data, header.len);
        }
        insert_behind(kcp->rcv_buf, place, segment);
        ++kcp->nrcv_buf;
    }
    ikcp_ack_push(kcp, header.sn, header.ts);
    move_received(kcp);
}

static void grow_cwnd(ikcpcb *kcp) {
    const uint64_t mss = kcp->mss;
    if (mss == 0 || kcp->cwnd >= kcp->rmt_wnd) {
        return;
    }
    if (kcp->cwnd < kcp->ssthresh) {
        ++kcp->cwnd;
        kcp->incr = static_cast<uint32_t>(std::min<uint64_t>(kcp->incr + mss, UINT32_MAX));
    } else {
        uint64_t incr = std::max<uint64_t>(kcp->incr, mss);
        incr += mss * mss / incr + mss / 16;
        incr = std::min<uint64_t>(incr, UINT32_MAX);
        kcp->incr = static_cast<uint32_t>(incr);
        if ((kcp->cwnd + uint64_t{1}) * mss <= incr) {
            kcp->cwnd = static_cast<uint32_t>((incr + mss - 1) / mss);
        }
    }
    if (kcp->cwnd > kcp->rmt_wnd) {
        kcp->cwnd = kcp->rmt_wnd;
        kcp->incr = bytes_of(kcp->rmt_wnd, kcp->mss);
    }
}

static void count_duplicate_acks(ikcpcb *kcp, uint32_t highest) {
    for (IkcpSegment *segment = kcp->snd_buf.first; segment != nullptr; segment = segment->next) {
        if (distance(segment->sn, highest) >= 0) {
            break;
        }
        ++segment->fastack;
    }
}

int ikcp_input(ikcpcb *kcp, const char *data, long size) {
    if (data == nullptr || size < static_cast<long>(ikcp_header_size)) {
        return -1;
    }
    const uint32_t una_before = kcp->snd_una;
    Acknowledged acknowledged{};
    size_t left = static_cast<size_t>(size);
    while (left >= ikcp_header_size) {
        const Header header = read_header(data);
        data += ikcp_header_size;
        left -= ikcp_header_size;
        if (header.conv != kcp->conv || header.cmd < ikcp_cmd_push || header.cmd > ikcp_cmd_tell) {
            return -1;
        }
        if (header.len > left || header.len > ikcp_max_len) {
            return -2;
        }

        kcp->rmt_wnd = header.wnd;
        drop_below(kcp, header.una);
        switch (header.cmd) {
        case ikcp_cmd_push:
            take_push(kcp, header, data);
            break;
        case ikcp_cmd_ack: {
            const int32_t rtt = distance(kcp->current, header.ts);
            if (rtt >= 0) {
                take_rtt(kcp, rtt);
            }
            drop_acknowledged(kcp, header.sn);
            if (!acknowledged.any || distance(header.sn, acknowledged.highest) > 0) {
                acknowledged = Acknowledged{.any = true, .highest = header.sn};
            }
            break;
        }
        case ikcp_cmd_ask:
            kcp->probe |= ikcp_probe_tell;
            break;
        default: // tell: the window is in the header
            break;
        }
        data += header.len;
        left -= header.len;
    }

    if (kcp->nocwnd == 0 && distance(kcp->snd_una, una_before) > 0) {
        grow_cwnd(kcp);
    }
    if (acknowledged.any) {
        count_duplicate_acks(kcp, acknowledged.highest);
    }
    return 0;
}

int ikcp_output(ikcpcb *kcp, const void *data, int size) {
    if (kcp->output == nullptr) {
        fail_check("kcp->output", __PRETTY_FUNCTION__);
    }
    if (size <= 0) {
        return 0;
    }
    return kcp->output(static_cast<const char *>(data), size, kcp, kcp->user);
}

// Reserves room for one segment in the datagram being assembled, whose size so far is `used`. A
// datagram without room is output first.
static char *room_for(ikcpcb *kcp, size_t &used, size_t size) {
    if (used > 0 && used + size > kcp->mtu) {
        ikcp_output(kcp, kcp->buffer, static_cast<int>(used));
        used = 0;
    }
    char *room = kcp->buffer + used;
    used += size;
    return room;
}

static void schedule_probes(ikcpcb *kcp) {
    if (kcp->rmt_wnd != 0) {
        kcp->ts_probe = 0;
        kcp->probe_wait = 0;
        return;
    }
    if (kcp->probe_wait == 0) {
        kcp->probe_wait = first_probe_wait;
    } else if (distance(kcp->current, kcp->ts_probe) >= 0) {
        kcp->probe |= ikcp_probe_ask;
        kcp->probe_wait = std::min(kcp->probe_wait + kcp->probe_wait / 2, longest_probe_wait);
    } else {
        return;
    }
    kcp->ts_probe = kcp->current + kcp->probe_wait;
}

static void move_sendable(ikcpcb *kcp) {
    uint32_t window = std::min(kcp->snd_wnd, kcp->rmt_wnd);
    if (kcp->nocwnd == 0) {
        window = std::min(window, kcp->cwnd);
    }
    while (kcp->snd_queue.first != nullptr && distance(kcp->snd_nxt, kcp->snd_una + window) < 0) {
        IkcpSegment *segment = kcp->snd_queue.first;
        unlink_segment(kcp->snd_queue, segment);
        --kcp->nsnd_que;
        append(kcp->snd_buf, segment);
        ++kcp->nsnd_buf;
        segment->sn = kcp->snd_nxt;
        ++kcp->snd_nxt;
    }
}

static uint32_t longer_rto(const ikcpcb *kcp, uint32_t rto) {
    const uint32_t estimate = static_cast<uint32_t>(kcp->rx_rto);
    uint32_t growth = estimate / 2;
    if (kcp->nodelay == 0) {
        growth = std::max(rto, estimate);
    } else if (kcp->nodelay == 1) {
        growth = rto / 2;
    }
    return std::min(rto + growth, longest_segment_rto);
}

namespace {
enum class Due { no, first, timed_out, acked_around };
}

static Due due_now(const ikcpcb *kcp, const IkcpSegment *segment) {
    if (segment->xmit == 0) {
        return Due::first;
    }
    if (distance(kcp->current, segment->resendts) >= 0) {
        return Due::timed_out;
    }
    if (kcp->fastresend > 0 && segment->fastack >= static_cast<uint32_t>(kcp->fastresend) &&
        (kcp->fastlimit <= 0 || segment->xmit <= static_cast<uint32_t>(kcp->fastlimit))) {
        return Due::acked_around;
    }
    return Due::no;
}

static void shrink_cwnd(ikcpcb *kcp, bool fast, bool timed_out) {
    if (fast) {
        const uint32_t inflight = kcp->snd_nxt - kcp->snd_una;
        kcp->ssthresh = std::max(inflight / 2, least_ssthresh);
        kcp->cwnd = kcp->ssthresh + static_cast<uint32_t>(kcp->fastresend);
        kcp->incr = bytes_of(kcp->cwnd, kcp->mss);
    }
    if (timed_out) {
        kcp->ssthresh = std::max(kcp->cwnd / 2, least_ssthresh);
        kcp->cwnd = 1;
        kcp->incr = kcp->mss;
    }
    if (kcp->cwnd < 1) {
        kcp->cwnd = 1;
        kcp->incr = kcp->mss;
    }
}

void ikcp_flush(ikcpcb *kcp) {
    if (kcp->updated == 0) {
        return;
    }
    if (kcp->mss == 0) {
        fail_check("kcp->mss > 0", __PRETTY_FUNCTION__);
    }
    size_t used = 0;
    Header header{.conv = kcp->conv,
                  .cmd = ikcp_cmd_ack,
                  .frg = 0,
                  .wnd = free_window(kcp),
                  .ts = 0,
                  .sn = 0,
                  .una = kcp->rcv_nxt,
                  .len = 0};

    for (uint32_t i = 0; i < kcp->ackcount; ++i) {
        header.sn = kcp->acklist[i].sn;
        header.ts = kcp->acklist[i].ts;
        write_header(room_for(kcp, used, ikcp_header_size), header);
    }
    kcp->ackcount = 0;

    schedule_probes(kcp);
    header.sn = 0;
    header.ts = 0;
    if ((kcp->probe & ikcp_probe_ask) != 0) {
        header.cmd = ikcp_cmd_ask;
        write_header(room_for(kcp, used, ikcp_header_size), header);
    }
    if ((kcp->probe & ikcp_probe_tell) != 0) {
        header.cmd = ikcp_cmd_tell;
        write_header(room_for(kcp, used, ikcp_header_size), header);
    }
    kcp->probe = 0;

    move_sendable(kcp);
    bool any_fast = false;
    bool any_timed_out = false;
    header.cmd = ikcp_cmd_push;
    for (IkcpSegment *segment = kcp->snd_buf.first; segment != nullptr; segment = segment->next) {
        uint32_t extra = 0;
        switch (due_now(kcp, segment)) {
        case Due::no:
            continue;
        case Due::first:
            segment->rto = static_cast<uint32_t>(kcp->rx_rto);
            extra = kcp->nodelay == 0 ? segment->rto / 8 : 0;
            break;
        case Due::timed_out:
            segment->rto = longer_rto(kcp, segment->rto);
            ++kcp->xmit;
            any_timed_out = true;
            break;
        case Due::acked_around:
            any_fast = true;
            break;
        }
        ++segment->xmit;
        segment->fastack = 0;
        segment->ts = kcp->current;
        segment->resendts = kcp->current + segment->rto + extra;

        header.frg = static_cast<uint8_t>(segment->frg);
        header.ts = segment->ts;
        header.sn = segment->sn;
        header.len = segment->len;
        char *room = room_for(kcp, used, ikcp_header_size + segment->len);
        write_header(room, header);
        if (segment->len > 0) {
            std::memcpy(room + ikcp_header_size, segment->data, segment->len);
        }
        if (segment->xmit >= kcp->dead_link) {
            kcp->state = ikcp_state_dead;
        }
    }
    if (used > 0) {
        ikcp_output(kcp, kcp->buffer, static_cast<int>(used));
    }
    shrink_cwnd(kcp, any_fast, any_timed_out);
}

void ikcp_update(ikcpcb *kcp, uint32_t current) {
    kcp->current = current;
    if (kcp->updated == 0) {
        kcp->updated = 1;
        kcp->ts_flush = current;
    }
    const int32_t late = distance(current, kcp->ts_flush);
    if (late > clock_jump || late < -clock_jump) {
        kcp->ts_flush = current;
    }
    if (distance(current, kcp->ts_flush) < 0) {
        return;
    }
    kcp->ts_flush += kcp->interval;
    if (distance(current, kcp->ts_flush) >= 0) {
        kcp->ts_flush = current + kcp->interval;
    }
    ikcp_flush(kcp);
}

uint32_t ikcp_check(const ikcpcb *kcp, uint32_t current) {
    if (kcp->updated == 0) {
        return current;
    }
    int32_t wait = distance(kcp->ts_flush, current);
    if (wait > clock_jump || wait < -clock_jump) {
        return current;
    }
    for (const IkcpSegment *segment = kcp->snd_buf.first; segment != nullptr;
         segment = segment->next) {
        wait = std::min(wait, distance(segment->resendts, current));
    }
    const int32_t interval = static_cast<int32_t>(kcp->interval);
    return current + static_cast<uint32_t>(std::clamp(wait, 0, interval));
}
