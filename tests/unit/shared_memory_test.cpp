#include "base/shared_memory.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

// Numbers of shared memory have no lock: who looks must find the old one or the new one.
struct Shared {
    alignas(8) uint8_t bytes[16];
};

[[gnu::noipa]] static void write_all(Shared &shared, bool is_set) {
    store_whole<uint16_t>(shared.bytes, is_set ? 0xFFFF : 0);
    store_whole<double>(shared.bytes + 8, is_set ? 1.0 / 3 : 0.0);
}

[[gnu::noipa]] static bool is_half(const Shared &shared) {
    const auto number = load_whole<uint16_t>(shared.bytes);
    const auto wide = load_whole<double>(shared.bytes + 8);
    return (number != 0 && number != 0xFFFF) || (wide != 0.0 && wide != 1.0 / 3);
}

TEST(SharedNumbers, NobodySeesHalfOfOne) {
    static Shared shared;
    static std::atomic<bool> writes;
    static std::atomic<bool> done;
    std::thread writer([] {
        writes = true;
        for (unsigned i = 0; !done; ++i) {
            write_all(shared, i % 2 != 0);
        }
    });
    while (!writes) {
    }
    int halves = 0;
    for (int i = 0; i < 5000000; ++i) {
        halves += is_half(shared) ? 1 : 0;
    }
    done = true;
    writer.join();
    EXPECT_EQ(halves, 0);
}
