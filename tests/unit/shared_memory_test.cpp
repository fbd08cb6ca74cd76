#include "base/shared_memory.h"
#include "base/shared_numbers.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

// Numbers in shared memory have no lock: a reader must see either the old or the new one.
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

// An object of this process, removed at the end of the test. Its mappings stay.
class SharedObject : public ::testing::Test {
protected:
    SharedObject()
        : name_("/quillorbeacon_unit_" + std::to_string(getpid()) + "_" +
                std::to_string(++number_)) {}
    ~SharedObject() override {
        shm_unlink(name_.c_str());
    }
    uint8_t *map(size_t size, uint8_t *at = nullptr) {
        return map_shared_memory(whole_object(name_.c_str(), size), at);
    }
    // What another program does to it: opens it with `flags` (O_TRUNC or 0), then sets its length.
    void cut(int flags, off_t length) {
        const int fd = shm_open(name_.c_str(), O_RDWR | flags, 0);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(ftruncate(fd, length), 0);
        close(fd);
    }
    off_t size() {
        const int fd = shm_open(name_.c_str(), O_RDONLY, 0);
        struct stat status {};
        fstat(fd, &status);
        close(fd);
        return status.st_size;
    }
    std::string line() const {
        return "Shared memory " + name_ +
               " was truncated by another program; restored, filled with zeros\n";
    }

    static inline int number_;
    std::string name_;
};

constexpr size_t object_size = 3 * 65536 + 6; // whole pages of any size, and part of one

TEST_F(SharedObject, CutShortItReadsAsZerosAndHasItsSizeAgain) {
    uint8_t *bytes = map(object_size);
    ASSERT_NE(bytes, nullptr);
    std::fill_n(bytes, object_size, uint8_t{7});
    ::testing::internal::CaptureStderr();
    cut(O_TRUNC, 0);
    EXPECT_EQ(load_whole<uint16_t>(bytes + object_size - 2), 0);
    EXPECT_EQ(bytes[0], 0);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), line());
    EXPECT_EQ(size(), static_cast<off_t>(object_size));
}

TEST_F(SharedObject, CutShortItKeepsWhatIsLeftAndTakesWhatIsWritten) {
    uint8_t *bytes = map(object_size);
    ASSERT_NE(bytes, nullptr);
    std::fill_n(bytes, object_size, uint8_t{7});
    cut(0, 100);
    store_whole<uint8_t>(bytes + 65536, 9);
    EXPECT_EQ(bytes[99], 7);
    EXPECT_EQ(bytes[100], 0);
    EXPECT_EQ(bytes[65536], 9);
    EXPECT_EQ(bytes[65537], 0);
    EXPECT_EQ(size(), static_cast<off_t>(object_size));
}

TEST_F(SharedObject, EachTimeItIsCut) {
    uint8_t *bytes = map(6);
    ASSERT_NE(bytes, nullptr);
    ::testing::internal::CaptureStderr();
    for (int i = 0; i < 100; ++i) {
        store_whole<uint16_t>(bytes + 4, 77);
        cut(O_TRUNC, 0);
        EXPECT_EQ(load_whole<uint16_t>(bytes + 4), 0);
    }
    ::testing::internal::GetCapturedStderr();
}

TEST_F(SharedObject, SeveralMappingsAndThreadsSurvive) {
    std::vector<uint8_t *> mappings(3);
    for (uint8_t *&bytes : mappings) {
        bytes = map(object_size);
        ASSERT_NE(bytes, nullptr);
    }
    std::atomic<bool> done = false;
    std::vector<std::thread> readers;
    for (const uint8_t *bytes : mappings) {
        readers.emplace_back([bytes, &done] {
            unsigned sum = 0;
            while (!done) {
                sum += load_whole<uint8_t>(bytes + 65536) + load_whole<uint8_t>(bytes);
            }
            EXPECT_EQ(sum, 0U);
        });
    }
    ::testing::internal::CaptureStderr();
    for (int i = 0; i < 200; ++i) {
        cut(O_TRUNC, 0);
    }
    done = true;
    for (std::thread &reader : readers) {
        reader.join();
    }
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(load_whole<uint8_t>(mappings[0] + 65536), 0);
    EXPECT_EQ(size(), static_cast<off_t>(object_size));
}

TEST_F(SharedObject, AnObjectThatWasOpenedAnewAtItsPlaceIsTheOneMadeWhole) {
    uint8_t *bytes = map(object_size);
    ASSERT_NE(bytes, nullptr);
    shm_unlink(name_.c_str());
    ASSERT_EQ(map(object_size, bytes), bytes);
    std::fill_n(bytes, object_size, uint8_t{7});
    cut(O_TRUNC, 0);
    // A handler that restores the wrong object would be called forever.
    alarm(60);
    EXPECT_EQ(load_whole<uint8_t>(bytes), 0);
    alarm(0);
    EXPECT_EQ(size(), static_cast<off_t>(object_size));
}

using SharedObjectDeathTest = SharedObject;

TEST_F(SharedObjectDeathTest, ABusErrorElsewhereEndsTheProcess) {
    ASSERT_NE(map(6), nullptr);
    const int fd = shm_open(name_.c_str(), O_RDWR, 0);
    const void *other = mmap(nullptr, 6, PROT_READ, MAP_SHARED, fd, 0);
    ASSERT_NE(other, MAP_FAILED);
    cut(O_TRUNC, 0);
    EXPECT_DEATH(load_whole<uint8_t>(static_cast<const uint8_t *>(other)), "");
    EXPECT_DEATH(raise(SIGBUS), "");
}

// While it exists, no file of the process can grow beyond 6 bytes.
struct FileSizeLimit {
    FileSizeLimit() {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before);
        const rlimit limit{6, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &before);
    }
    rlimit before{};
};

TEST_F(SharedObject, ThatCannotGrowIsDetachedUntilItCan) {
    uint8_t *bytes = map(object_size);
    ASSERT_NE(bytes, nullptr);
    std::fill_n(bytes, object_size, uint8_t{7});
    cut(O_TRUNC, 0);
    ::testing::internal::CaptureStderr();
    {
        const FileSizeLimit limit;
        EXPECT_EQ(load_whole<uint8_t>(bytes), 0);
        store_whole<uint8_t>(bytes + object_size - 1, 9);
        map_detached_memory();
        EXPECT_EQ(load_whole<uint8_t>(bytes + object_size - 1), 9);
        EXPECT_EQ(shared_memory_restorations(bytes), 0u);
    }
    EXPECT_EQ(size(), 0);
    map_detached_memory();
    // The limit is for standard error's file, too.
    const std::string said = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("Shared memory " + name_ + ": mapped now\n"), std::string::npos) << said;
    EXPECT_EQ(size(), static_cast<off_t>(object_size));
    EXPECT_EQ(shared_memory_restorations(bytes), 1u);
    EXPECT_EQ(load_whole<uint8_t>(bytes + object_size - 1), 0);
    // Other mappings of the object see what is written from now on.
    store_whole<uint8_t>(bytes, 5);
    const int fd = shm_open(name_.c_str(), O_RDONLY, 0);
    uint8_t seen = 0;
    EXPECT_EQ(pread(fd, &seen, 1, 0), 1);
    EXPECT_EQ(seen, 5);
    close(fd);
}

// While some threads use it, it is truncated and mapped again.
TEST_F(SharedObject, IsDetachedUnderManyThreads) {
    uint8_t *bytes = map(object_size);
    ASSERT_NE(bytes, nullptr);
    std::atomic<bool> done;
    std::vector<std::thread> users;
    users.reserve(3);
    for (int i = 0; i < 3; ++i) {
        users.emplace_back([&] {
            for (size_t at = 0; !done; at = (at + 4097) % object_size) {
                store_whole<uint8_t>(bytes + at, 1);
            }
        });
    }
    ::testing::internal::CaptureStderr();
    for (int i = 0; i < 200; ++i) {
        {
            const FileSizeLimit limit;
            cut(O_TRUNC, 0);
            std::this_thread::yield();
        }
        map_detached_memory();
    }
    done = true;
    for (std::thread &user : users) {
        user.join();
    }
    map_detached_memory();
    EXPECT_NE(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(size(), static_cast<off_t>(object_size));
}
