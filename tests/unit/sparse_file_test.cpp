#include "base/sparse_file.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr FileParts parts{100, 300000, 20};
constexpr size_t file_size = 20 * 300000;

// A sparse file in memory.
class SparseFile : public testing::Test {
protected:
    SparseFile() : fd_(memfd_create("sparse", MFD_CLOEXEC)), page_(sysconf(_SC_PAGESIZE)) {
        EXPECT_EQ(ftruncate(fd_, file_size), 0);
    }
    ~SparseFile() override {
        close(fd_);
    }
    // The bytes that it takes.
    int64_t used() const {
        struct stat status {};
        fstat(fd_, &status);
        return status.st_blocks * 512;
    }

    int fd_;
    long page_;
};

TEST_F(SparseFile, GetsThePagesOfItsPartsAndNoOthers) {
    EXPECT_EQ(allocate_file_parts(fd_, parts), 0);
    const int64_t taken = used();
    EXPECT_GE(taken, 20 * page_);
    EXPECT_LE(taken, 40 * page_);
    // Once more, and writing them, takes no more.
    EXPECT_EQ(allocate_file_parts(fd_, parts), 0);
    for (size_t i = 0; i < parts.count; ++i) {
        EXPECT_EQ(pwrite(fd_, std::string(parts.size, 'x').data(), parts.size,
                         static_cast<off_t>(i * parts.stride)),
                  static_cast<ssize_t>(parts.size));
    }
    EXPECT_EQ(used(), taken);
}

TEST_F(SparseFile, KeepsWhatIsThere) {
    ASSERT_EQ(pwrite(fd_, "kept", 4, 300000), 4);
    EXPECT_EQ(allocate_file_parts(fd_, parts), 0);
    char bytes[5] = "";
    EXPECT_EQ(pread(fd_, bytes, 4, 300000), 4);
    EXPECT_STREQ(bytes, "kept");
}

TEST_F(SparseFile, IsGivenRoomWhereItHasHoles) {
    EXPECT_TRUE(has_file_room(fd_, 1000000, 50000));
    EXPECT_GE(used(), 50000);
    const int64_t before = used();
    EXPECT_TRUE(has_file_room(fd_, 1000000, 50000));
    EXPECT_EQ(used(), before);
}

TEST_F(SparseFile, HasNothingToGiveBehindItsEnd) {
    EXPECT_TRUE(has_file_room(fd_, file_size + 1000, 50000));
    EXPECT_EQ(used(), 0);
}
