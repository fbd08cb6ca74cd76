#include "burst.h"

#include "load.h"
#include "net/relay_packet.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <sys/socket.h>
#include <vector>

constexpr uint16_t audio_port = 5003;
constexpr uint32_t sound_size = 200;
constexpr int64_t sound_interval_ns = 20'000'000;
constexpr int64_t registration_interval_ns = 2'000'000'000;
// Between two looks a viewer takes a datagram or hands over a frame, which takes less than this. A
// longer pause was made by the machine.
constexpr int64_t longest_look_ns = 100'000;
constexpr int64_t stall_ns = 1'000'000;  // a frame with more pauses than this in all is disturbed
constexpr int64_t rest_ns = 500'000'000; // for what is on its way at the end

// A client and what it has received.
struct Viewer {
    int socket;
    int64_t next_look_ns;
    std::vector<uint32_t> missing; // blocks of each frame
};

// A sound that has arrived at a client.
struct Sound {
    uint32_t frame; // the one that was under way
    float ms;
};

// A burst run in progress.
struct Run {
    uint16_t number;
    int64_t work_ns;
    std::vector<Viewer> viewers;
    std::vector<uint32_t> missing_everywhere; // viewers that do not have the frame whole
    std::vector<int64_t> paused_ns; // for how long nobody looked while a frame was under way
    uint32_t handed;                // frames so far
    int64_t last_look_ns;
    std::vector<float> whole_ms;
    std::vector<uint32_t> sound_frames; // of each sound: the frame that was handed over last
    std::vector<Sound> sounds;
    uint64_t delivered;
};

static int64_t real_ns(const timespec &time) {
    return static_cast<int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

static int64_t real_ns() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return real_ns(time);
}

static Run make_run(const Wire &wire, const Burst &burst, unsigned frames) {
    static uint16_t runs = 10000; // apart from those of load.cpp
    const uint32_t blocks = (burst.size + relay_video_block_size - 1) / relay_video_block_size;
    Run run{};
    run.number = ++runs;
    run.work_ns = burst.work_us * 1000LL;
    for (size_t i = 0; i + 1 < wire.destinations.size(); ++i) {
        const int on = 1;
        const int socket = wire.destinations[i].socket;
        setsockopt(socket, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
        run.viewers.push_back({socket, 0, std::vector<uint32_t>(frames, blocks)});
    }
    run.missing_everywhere.assign(frames, static_cast<uint32_t>(run.viewers.size()));
    run.paused_ns.assign(frames, 0);
    run.last_look_ns = monotonic_ns();
    return run;
}

static void take_block(Run &run, Viewer &viewer, const BlockHeader &header, int64_t now) {
    ++run.delivered;
    if (header.item >= viewer.missing.size() || --viewer.missing[header.item] != 0) {
        return;
    }
    if (--run.missing_everywhere[header.item] == 0) {
        run.whole_ms.push_back(static_cast<float>(now - header.handed_ns) / 1e6F);
    }
}

static void take_sound(Run &run, const BlockHeader &header, int64_t arrived_ns) {
    if (header.item < run.sound_frames.size()) {
        run.sounds.push_back({run.sound_frames[header.item],
                              static_cast<float>(arrived_ns - header.handed_ns) / 1e6F});
    }
}

// When the kernel put a datagram into the buffer, by the real-time clock.
static int64_t arrival_ns(msghdr &message) {
    for (cmsghdr *control = CMSG_FIRSTHDR(&message); control != nullptr;
         control = CMSG_NXTHDR(&message, control)) {
        if (control->cmsg_level == SOL_SOCKET && control->cmsg_type == SCM_TIMESTAMPNS) {
            timespec time{};
            memcpy(&time, CMSG_DATA(control), sizeof time);
            return real_ns(time);
        }
    }
    return 0;
}

// Looks at one datagram, if there is one.
static void look(Run &run, Viewer &viewer, int64_t now) {
    static uint8_t packet[relay_header_size + largest_block];
    alignas(cmsghdr) uint8_t control[128];
    iovec content{packet, sizeof packet};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t length = recvmsg(viewer.socket, &message, MSG_DONTWAIT);
    if (length < static_cast<ssize_t>(relay_header_size)) {
        return;
    }
    viewer.next_look_ns = now + run.work_ns;
    BlockHeader header{};
    const uint8_t *block = packet + relay_header_size;
    const size_t size = static_cast<size_t>(length) - relay_header_size;
    if (!read_block_header(block, size, header) || header.run != run.number ||
        !is_intact(block, size, header)) {
        return;
    }
    if (packet[relay_type_at] == relay_type_audio) {
        take_sound(run, header, arrival_ns(message));
    } else if (packet[relay_type_at] == relay_type_video) {
        take_block(run, viewer, header, now);
    }
}

// Charges a pause to the last frame and, while that one is not whole anywhere, to the one before,
// which may still be under way.
static void note_pause(Run &run, int64_t length_ns) {
    if (length_ns <= longest_look_ns || run.handed == 0) {
        return;
    }
    run.paused_ns[run.handed - 1] += length_ns;
    if (run.handed > 1 && run.missing_everywhere[run.handed - 1] > 0) {
        run.paused_ns[run.handed - 2] += length_ns;
    }
}

// Was a frame disturbed in whose time nobody looked for so long?
static bool is_disturbed(int64_t paused_ns) {
    return paused_ns > stall_ns;
}

static void look_around(Run &run) {
    const int64_t now = monotonic_ns();
    note_pause(run, now - run.last_look_ns);
    run.last_look_ns = now;
    for (Viewer &viewer : run.viewers) {
        if (now >= viewer.next_look_ns) {
            look(run, viewer, now);
        }
    }
}

static void send_sound(const Wire &wire, Run &run) {
    const auto number = static_cast<uint32_t>(run.sound_frames.size());
    run.sound_frames.push_back(run.handed - 1);
    uint8_t block[sound_size];
    fill_block(block, {block_marker, run.number, number, 0, sound_size, 0});
    stamp_block(block, real_ns());
    const sockaddr_in to = board_address(audio_port);
    sendto(wire.source, block, sizeof block, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
}

static void send_all(Wire &wire, const Subject &subject, const Burst &burst, Run &run) {
    const int64_t start = monotonic_ns();
    int64_t next_sound = start;
    int64_t next_registration = start;
    const auto frames = static_cast<uint32_t>(run.missing_everywhere.size());
    while (run.handed < frames) {
        look_around(run);
        const int64_t now = monotonic_ns();
        if (now >= start + static_cast<int64_t>(run.handed * 1e9 / burst_rate_hz)) {
            hand_over_frame(wire, run.number, run.handed++, burst.size);
        }
        if (now >= next_sound) { // after the first frame
            send_sound(wire, run);
            next_sound += sound_interval_ns;
        }
        if (subject.kind == SubjectKind::daemon && now >= next_registration) {
            register_clients(wire);
            next_registration += registration_interval_ns;
        }
    }
    while (monotonic_ns() < start + static_cast<int64_t>(frames * 1e9 / burst_rate_hz) + rest_ns) {
        look_around(run);
    }
}

// The undisturbed frames that a viewer has whole.
static unsigned whole_frames(const Run &run, const Viewer &viewer) {
    unsigned whole = 0;
    for (size_t frame = 0; frame < viewer.missing.size(); ++frame) {
        whole += viewer.missing[frame] == 0 && !is_disturbed(run.paused_ns[frame]) ? 1 : 0;
    }
    return whole;
}

static double sound_p99_ms(const Run &run) {
    std::vector<float> delays;
    for (const Sound &sound : run.sounds) {
        if (!is_disturbed(run.paused_ns[sound.frame])) {
            delays.push_back(sound.ms);
        }
    }
    return quantile(delays, 0.99);
}

BurstResult run_burst(Wire &wire, const Subject &subject, const Burst &burst, unsigned frames) {
    Run run = make_run(wire, burst, frames);
    const CpuTime before = cpu_time(subject);
    send_all(wire, subject, burst, run);
    const CpuTime after = cpu_time(subject);
    BurstResult result{};
    result.disturbed = static_cast<unsigned>(
        std::count_if(run.paused_ns.begin(), run.paused_ns.end(), is_disturbed));
    result.frames = frames - result.disturbed;
    result.whole = result.frames;
    for (const Viewer &viewer : run.viewers) {
        result.whole = std::min(result.whole, whole_frames(run, viewer));
    }
    result.p50_ms = quantile(run.whole_ms, 0.5);
    result.p99_ms = quantile(run.whole_ms, 0.99);
    result.cpu_us = (after.total_us - before.total_us) /
                    static_cast<double>(std::max<uint64_t>(run.delivered, 1));
    result.sound_p99_ms = sound_p99_ms(run);
    return result;
}
