#include "base/free_space.h"

#include <gtest/gtest.h>

static uint32_t megabytes(unsigned long block_size, fsblkcnt_t available_blocks) {
    struct statvfs status {};
    status.f_bsize = block_size;
    status.f_frsize = 7;
    status.f_blocks = 3000000000;
    status.f_bfree = 2000000000;
    status.f_bavail = available_blocks;
    return megabytes_of(status);
}

TEST(FreeSpace, IsBlocksOfTheBlockSizeForUnprivilegedUsers) {
    EXPECT_EQ(megabytes(4096, 1000000), 4096U);
    EXPECT_EQ(megabytes(512, 1000000), 512U);
}

TEST(FreeSpace, IsCutToWholeDecimalMegabytes) {
    EXPECT_EQ(megabytes(1, 0), 0U);
    EXPECT_EQ(megabytes(1, 999999), 0U);
    EXPECT_EQ(megabytes(1, 1000000), 1U);
    EXPECT_EQ(megabytes(1000, 1999), 1U);
}

TEST(FreeSpace, MayHaveMoreThan32BitsOfBytesAndBlocks) {
    EXPECT_EQ(megabytes(4096, 1048577), 4294U);              // just over 2^32 bytes
    EXPECT_EQ(megabytes(4096, (1ULL << 32) + 1), 17592186U); // just over 2^32 blocks
    EXPECT_EQ(megabytes(65536, 60000000000), 3932160000U);   // 3.9 petabytes
}

TEST(FreeSpace, IsNoneWhereThereIsNoFileSystem) {
    EXPECT_EQ(free_megabytes("/nowhere/at/all"), 0U);
    EXPECT_EQ(free_megabytes(""), 0U);
}
