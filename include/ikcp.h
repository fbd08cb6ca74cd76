#pragma once

// KCP: reliable, ordered delivery over a datagram service that is neither.
// Stands on: nothing else of ours.

#include <cstddef>
#include <cstdint>

// The datagram service may lose, repeat, reorder and delay datagrams.
//
// One control block is one end of one conversation. It does no input or output of its own and reads
// no clock: its owner sets the `output` hook, which sends a datagram, passes every received
// datagram to ikcp_input, and calls ikcp_update with the time.
//
//     ikcpcb *kcp = ikcp_create(conv, user);       // both ends use the same conv
//     kcp->output = send_datagram;
//     ikcp_send(kcp, data, size);                  // queues
//     ikcp_update(kcp, now);                       // every `interval` ms, or when ikcp_check says
//     ikcp_input(kcp, datagram, datagram_size);    // for each datagram that arrives
//     int size = ikcp_recv(kcp, text, text_size);  // until it is negative
//     ikcp_release(kcp);
//
// Units: times are milliseconds of any steady clock, which may wrap at 2^32; windows are counted in
// segments; mtu, mss, len and incr are bytes. Sequence numbers and times are compared by their
// signed 32-bit difference, so all of them may wrap.
//
// Modes: with `stream` 0 a block carries messages, and one ikcp_recv returns what one ikcp_send
// sent. With `stream` 1 it carries bytes without boundaries. Only the sending end uses `stream`.
//
// Errors are negative return values. Running out of memory never ends the process: a send is
// refused as a whole, and a received segment is dropped without an acknowledgement, so that its
// sender repeats it. Two mistakes of the owner do end the process, in every kind of build, with one
// line on standard error and abort():
//
//     ikcp: assertion failed: kcp->output: int ikcp_output(ikcpcb*, const void*, int)
//     ikcp: assertion failed: kcp->mss > 0: void ikcp_flush(ikcpcb*)
//
// The first means that a datagram was due but there is no hook, the second that mss was set to 0;
// ikcp_send makes the second check as well.
//
// Input from the network is not trusted: whatever its bytes, nothing outside the datagram is read,
// and at most 2 * rcv_wnd received segments and ikcp_max_acks acknowledgements are kept.
//
// Threads: a block has no lock. Call all operations on one block from one thread or under one lock;
// different blocks are independent. The allocation hooks are process-wide.

// The wire format. Every segment is a header of 24 bytes followed by `len` bytes of data; integers
// are little-endian. A datagram may hold several segments, back to back; fewer than 24 bytes after
// the last one are ignored.
constexpr size_t ikcp_offset_conv = 0; // 4 bytes: conversation number
constexpr size_t ikcp_offset_cmd = 4;  // 1 byte: one of the four commands below
constexpr size_t ikcp_offset_frg = 5;  // 1 byte: fragments of the message that follow this one
constexpr size_t ikcp_offset_wnd = 6;  // 2 bytes: free receive window of the header's sender
constexpr size_t ikcp_offset_ts = 8;   // 4 bytes: time of sending; an ack echoes it
constexpr size_t ikcp_offset_sn = 12;  // 4 bytes: sequence number
constexpr size_t ikcp_offset_una = 16; // 4 bytes: every sn below it has reached the header's sender
constexpr size_t ikcp_offset_len = 20; // 4 bytes: data bytes after the header
constexpr size_t ikcp_header_size = 24;

static_assert(ikcp_offset_cmd == ikcp_offset_conv + sizeof(uint32_t));
static_assert(ikcp_offset_frg == ikcp_offset_cmd + sizeof(uint8_t));
static_assert(ikcp_offset_wnd == ikcp_offset_frg + sizeof(uint8_t));
static_assert(ikcp_offset_ts == ikcp_offset_wnd + sizeof(uint16_t));
static_assert(ikcp_offset_sn == ikcp_offset_ts + sizeof(uint32_t));
static_assert(ikcp_offset_una == ikcp_offset_sn + sizeof(uint32_t));
static_assert(ikcp_offset_len == ikcp_offset_una + sizeof(uint32_t));
static_assert(ikcp_header_size == ikcp_offset_len + sizeof(uint32_t));

// Commands. An ack carries the sn and ts of the segment it acknowledges; ask and tell carry 0 in
// both. Only a push has data; data after any other command is skipped.
constexpr uint8_t ikcp_cmd_push = 81; // data
constexpr uint8_t ikcp_cmd_ack = 82;  // acknowledges one segment
constexpr uint8_t ikcp_cmd_ask = 83;  // asks for the window size
constexpr uint8_t ikcp_cmd_tell = 84; // reports it, in the header's wnd

// Flags of ikcpcb::probe.
constexpr uint32_t ikcp_probe_ask = 1;
constexpr uint32_t ikcp_probe_tell = 2;

constexpr int ikcp_min_mtu = 50;

// The frg byte counts to 255, so a message has at most 256 fragments.
constexpr uint32_t ikcp_max_fragments = 256;

// Maximum data bytes in one segment, so that the size of 256 fragments fits in an int. The mtu is
// limited accordingly, and a received segment that claims more is treated as truncated.
constexpr uint32_t ikcp_max_len = 0x7FFFFFFF / ikcp_max_fragments;

// Acknowledgements kept for the next flush. Further segments are accepted but not acknowledged
// individually; una or a retransmission makes up for it.
constexpr uint32_t ikcp_max_acks = 65536;

constexpr uint32_t ikcp_state_dead = 0xFFFFFFFF;

// A queued segment. Its data follows it in the same allocation.
struct IkcpSegment {
    IkcpSegment *next;
    IkcpSegment *previous;
    uint32_t sn;
    uint32_t frg;
    uint32_t len;
    uint32_t capacity; // room for this many data bytes
    char *data;

    // Set when the segment enters snd_buf.
    uint32_t ts;       // time of the last transmission
    uint32_t resendts; // time of the next one if no ack arrives
    uint32_t rto;      // the segment's own time-out, at most 2^30 ms
    uint32_t fastack;  // duplicate acks since the last transmission
    uint32_t xmit;     // transmissions
};

// Both null when empty.
struct IkcpList {
    IkcpSegment *first = nullptr;
    IkcpSegment *last = nullptr;
};

struct IkcpAck {
    uint32_t sn;
    uint32_t ts;
};

// The control block. Its owner may read every field at any time and may set snd_wnd, rcv_wnd,
// rx_minrto, dead_link, fastresend, fastlimit, nocwnd, stream, user, output, writelog and logmask.
// Change mtu and mss only with ikcp_setmtu, which also changes the buffer. rcv_wnd must be large
// enough for the peer's largest message; the wire format can show at most 65535.
struct ikcpcb { // NOLINT(readability-identifier-naming): the protocol's own name
    uint32_t conv = 0;
    uint32_t mtu = 1400; // largest datagram handed to output
    uint32_t mss = 1376; // mtu minus the header: the most data in one segment
    uint32_t state = 0;  // ikcp_state_dead once a segment was sent dead_link times, for good

    uint32_t snd_una = 0; // first unacknowledged
    uint32_t snd_nxt = 0; // next to send
    uint32_t rcv_nxt = 0; // next expected

    uint32_t ts_recent = 0;  // kept at 0
    uint32_t ts_lastack = 0; // kept at 0
    uint32_t ssthresh = 2;   // slow-start threshold, at least 2

    int32_t rx_rttval = 0; // variance of the round-trip time
    int32_t rx_srtt = 0;   // smoothed round-trip time; 0 means no sample yet
    int32_t rx_rto = 200;  // retransmission time-out, rx_minrto to 60000
    int32_t rx_minrto = 100;

    uint32_t snd_wnd = 32;
    uint32_t rcv_wnd = 128;
    uint32_t rmt_wnd = 128; // the peer's free window as last reported
    uint32_t cwnd = 0;      // congestion window
    uint32_t probe = 0;     // ikcp_probe_ask, ikcp_probe_tell: due with the next flush

    uint32_t current = 0;    // time of the last update
    uint32_t interval = 100; // between flushes, 10 to 5000
    uint32_t ts_flush = 100; // next flush
    uint32_t xmit = 0;       // retransmissions after a time-out, of all segments

    uint32_t nrcv_buf = 0;
    uint32_t nsnd_buf = 0;
    uint32_t nrcv_que = 0;
    uint32_t nsnd_que = 0;

    uint32_t nodelay = 0; // 0, 1, or 2 and more: see ikcp_nodelay
    uint32_t updated = 0; // 1 after the first update

    uint32_t ts_probe = 0;   // next window probe, while rmt_wnd is 0
    uint32_t probe_wait = 0; // wait before it; 0 while rmt_wnd is not 0

    uint32_t dead_link = 20;
    uint32_t incr = 0; // congestion window in bytes, so that it can grow in smaller steps

    IkcpList snd_queue; // accepted by ikcp_send, without sn
    IkcpList rcv_queue; // in order, for ikcp_recv
    IkcpList snd_buf;   // sent and unacknowledged, by sn
    IkcpList rcv_buf;   // received ahead of a gap, or while rcv_queue is full; by sn

    IkcpAck *acklist = nullptr; // acknowledgements due with the next flush
    uint32_t ackcount = 0;
    uint32_t ackblock = 0; // room in acklist, in acknowledgements

    void *user = nullptr;
    char *buffer = nullptr; // (mtu + 24) * 3 bytes, in which datagrams are assembled

    int32_t fastresend = 0; // duplicate acks that cause a fast retransmission; 0: never
    int32_t fastlimit = 5;  // maximum fast retransmissions of one segment; 0: no limit
    int32_t nocwnd = 0;     // not 0: congestion control off
    int32_t stream = 0;     // not 0: bytes without message boundaries
    int32_t logmask = 0;    // kept for the owner: this code logs nothing

    // Sends one datagram of `len` bytes, which are valid only during the call. ikcp_output returns
    // the result; otherwise it is ignored: a datagram that was not sent is treated as lost. Must
    // not call an operation on the same block.
    int (*output)(const char *buf, int len, ikcpcb *kcp, void *user) = nullptr;

    // Never called: this code logs nothing.
    void (*writelog)(const char *text, ikcpcb *kcp, void *user) = nullptr;
};

// Replaces malloc and free for all blocks. A null restores the default of that hook. Memory must be
// aligned as malloc aligns it. Call it while no block exists, before other threads use one.
void ikcp_allocator(void *(*new_malloc)(size_t), void (*new_free)(void *));

// Returns a block with the initial values above, or null when memory runs out. The caller owns it
// and frees it with ikcp_release. `user` is only passed to the hooks.
ikcpcb *ikcp_create(uint32_t conv, void *user);

// Frees the block and all it holds, sent or not. Null is allowed.
void ikcp_release(ikcpcb *kcp);

// Sets mtu, mss = mtu - 24 and a new buffer. Returns 0; -1 when mtu is below 50; -2 when memory
// runs out or mtu is above ikcp_max_len + 24. An error changes nothing. Segments accepted earlier
// keep their size: after the mtu is lowered, those that are too long for it are sent alone, in
// datagrams longer than the mtu, and until they are gone the buffer may be larger than stated
// above.
int ikcp_setmtu(ikcpcb *kcp, int mtu);

// Sets four fields at once; a negative argument leaves its field unchanged. Always returns 0.
//   nodelay   how much a segment's time-out grows each time it expires: 0 by itself (at least
//             rx_rto), 1 by half of itself, 2 and more by half of rx_rto. Any value but 0 also sets
//             rx_minrto to 30 instead of 100, and the first time-out loses its extra rx_rto / 8.
//   interval  clamped to 10..5000
//   resend    fastresend
//   nc        nocwnd
int ikcp_nodelay(ikcpcb *kcp, int nodelay, int interval, int resend, int nc);

// Accepts `len` bytes for sending and copies them; a later flush sends them. Either all are
// accepted or none. Returns
//   0   accepted
//   -1  len is negative, or buffer is null with len above 0
//   -2  more segments than rcv_wnd or, as a message, than 256; or no memory
// A message of 0 bytes is sent and received as such. In stream mode the bytes first fill up the
// last segment in snd_queue, and sending 0 bytes does nothing.
int ikcp_send(ikcpcb *kcp, const char *buffer, int len);

// Copies the next message, in stream mode the next segment, to `buffer` of `len` bytes and removes
// it from the queue. A negative len means a buffer of -len bytes and leaves the message in the
// queue. With a null buffer nothing is copied. Returns the size of the message, or
//   -1  nothing has been received
//   -2  only a part of the message has been received
//   -3  the buffer is too small; the message stays
// After a message is removed from a full queue, the next flush reports the free window to the peer.
int ikcp_recv(ikcpcb *kcp, char *buffer, int len);

// The size of the next message, as ikcp_recv would return it; -1 when none is complete.
int ikcp_peeksize(const ikcpcb *kcp);

// Processes a received datagram; the bytes are not kept. Round-trip times are measured against the
// time of the last update, so call ikcp_update shortly before to make them exact. Returns
//   0   processed
//   -1  shorter than 24 bytes (or null), another conv, or an unknown command
//   -2  a segment is longer than the rest of the datagram
// Processing stops at an error: segments before it have taken effect, but count neither for the
// congestion window nor as duplicate acks.
int ikcp_input(ikcpcb *kcp, const char *data, long size);

// Sets the time, and flushes if ts_flush has been reached. The first call flushes. A time more than
// 10000 ms before or after ts_flush is treated as a clock jump and flushes as well.
void ikcp_update(ikcpcb *kcp, uint32_t current);

// The time at which ikcp_update should be called next if nothing is sent or received until then:
// between `current` (now) and current + interval. A retransmission due before ts_flush gives its
// own time, although it is sent only with the flush at ts_flush, so a caller that sleeps until then
// should sleep at least 1 ms.
uint32_t ikcp_check(const ikcpcb *kcp, uint32_t current);

// Sends what is due at the time of the last update: acknowledgements, window probes and replies to
// them, new segments as far as the windows allow, and retransmissions. Does nothing before the
// first update. The congestion window starts at 0, so with congestion control the first flush sends
// no data.
void ikcp_flush(ikcpcb *kcp);

// Passes one datagram to the output hook and returns its result; when size is 0 or less, returns 0
// without calling it.
int ikcp_output(ikcpcb *kcp, const void *data, int size);

// Queues an acknowledgement of the segment `sn`, sent at `ts`, for the next flush. It is dropped
// when memory runs out or ikcp_max_acks are queued already.
void ikcp_ack_push(ikcpcb *kcp, uint32_t sn, uint32_t ts);
