#pragma once

// Two minimal relays that do nothing but send, with the daemon's interface: data packets from port
// 5000 go to the clients and the display process, frames from a ring polled every 2 ms go to the
// clients, all after the 12-byte header.

enum class Pacing {
    plain, // sendto and usleep(2) for each client, with the kernel's default timer slack
    limit, // one sendmmsg for all clients, no pause
};

constexpr const char *baseline_ring_name = "relay_bench_framebuffer";

// Serves the first `client_count` clients until it is killed.
[[noreturn]] void run_baseline(Pacing pacing, int client_count);
