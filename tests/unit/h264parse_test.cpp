#include "h264parse.h"

#include "sps_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <random>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr char past_end_message[] = "h264parse: assertion failed: m_nCurrentBit <= m_nLength \\* 8";

constexpr unsigned int profiles_with_chroma_fields[] = {44, 83, 86, 100, 110, 118, 122, 244};

// The number of bytes that an SPS needs: its last bit may be just after them if it is 0.
size_t shortest_length(size_t bits) {
    return (bits - 1 + 7) / 8;
}

struct Size {
    int width, height;
    bool operator==(const Size &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Size &size) {
    return out << size.width << "x" << size.height;
}

// The bytes end where an inaccessible page begins, so a read beyond them raises SIGSEGV.
struct GuardedBytes {
    unsigned char *pages;
    size_t page_size;
    unsigned char *bytes;
};

GuardedBytes guard(const unsigned char *bytes, size_t length) {
    GuardedBytes guarded = {};
    guarded.page_size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *pages = mmap(nullptr, 2 * guarded.page_size, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED || length > guarded.page_size ||
        mprotect(static_cast<unsigned char *>(pages) + guarded.page_size, guarded.page_size,
                 PROT_NONE) != 0) {
        ADD_FAILURE() << "no guarded pages";
        std::abort();
    }
    guarded.pages = static_cast<unsigned char *>(pages);
    guarded.bytes = guarded.pages + guarded.page_size - length;
    if (length > 0) {
        std::memcpy(guarded.bytes, bytes, length);
    }
    return guarded;
}

void release(const GuardedBytes &guarded) {
    munmap(guarded.pages, 2 * guarded.page_size);
}

Size parse(const unsigned char *sps, size_t length) {
    Size size = {-1, -1};
    h264parse(sps, static_cast<unsigned int>(length), &size.width, &size.height);
    return size;
}

Size parse_guarded(const std::vector<unsigned char> &bytes, size_t length) {
    const GuardedBytes guarded = guard(bytes.data(), length);
    const Size size = parse(guarded.bytes, length);
    release(guarded);
    return size;
}

Size parse(const Sps &sps) {
    const BitWriter writer = write_sps(sps);
    return parse_guarded(writer.bytes, writer.bytes.size());
}

void expect_abort(const std::vector<unsigned char> &bytes, size_t length) {
    EXPECT_EXIT(parse_guarded(bytes, length), testing::KilledBySignal(SIGABRT), past_end_message);
}

// A valid SPS that is cut short ends the process, at every length below the sufficient one.
void expect_abort_when_truncated(const Sps &sps, Size whole) {
    const BitWriter writer = write_sps(sps);
    const size_t enough = shortest_length(writer.bits);
    for (size_t length = 0; length < enough; ++length) {
        SCOPED_TRACE(testing::Message() << length << " bytes of " << enough);
        expect_abort(writer.bytes, length);
    }
    EXPECT_EQ(parse_guarded(writer.bytes, writer.bytes.size()), whole);
}

} // namespace

// ---- The writer itself, against codes worked out by hand ----

TEST(H264ParseWriter, WritesExponentialGolombCodes) {
    BitWriter writer;
    put_ue(writer, 0);  // 1
    put_ue(writer, 1);  // 010
    put_ue(writer, 2);  // 011
    put_ue(writer, 3);  // 00100
    put_ue(writer, 7);  // 0001000
    put_se(writer, 0);  // 1
    put_se(writer, 1);  // 010
    put_se(writer, -1); // 011
    put_se(writer, 2);  // 00100
    put_se(writer, -2); // 00101
    // 1 010 011 0|0100 0001|000 1 010 0|11 00100 0|0101
    EXPECT_EQ(writer.bits, 36U);
    EXPECT_EQ(writer.bytes, (std::vector<unsigned char>{0xA6, 0x41, 0x14, 0xC8, 0x50}));
}

// ---- Whole sets by hand ----

TEST(H264Parse, ReadsABaselineSetWrittenByHand) {
    // Set 0 (1), log2 0 (1), order type 2 (011), 1 reference frame (010); no gaps (0), width 0
    // (1), height 1 (010), frames only (1), direct (1), no cropping (0).
    const std::vector<unsigned char> bytes = {66, 0xC0, 10, 0b11011010, 0b01010110};
    EXPECT_EQ(parse_guarded(bytes, bytes.size()), (Size{16, 32}));
}

TEST(H264Parse, ReadsAHighSetWrittenByHand) {
    // Set 0 (1), chroma format 1 (010), bit depths 0 (1, 1), no bypass (0), no matrix (0); log2 0
    // (1), order type 0 (1), its log2 0 (1), 0 reference frames (1), no gaps (0), width 2 (011);
    // height 0 (1), fields (0), not adaptive (0), direct (1), cropping (1): left 0 (1), right 1
    // (010), top 2 (011), bottom 3 (00100).
    const std::vector<unsigned char> bytes = {100,        0,          31,         0b10101100,
                                              0b11110011, 0b10011101, 0b00110010, 0};
    EXPECT_EQ(parse_guarded(bytes, bytes.size()), (Size{48 - 6 - 4, 32 - 2}));
}

// ---- Profiles ----

TEST(H264Parse, EveryListedProfileHasChromaFields) {
    for (const unsigned int profile : profiles_with_chroma_fields) {
        SCOPED_TRACE(profile);
        Sps sps = high_sps();
        sps.profile_idc = profile;
        sps.bit_depth_luma_minus8 = 2;
        sps.bit_depth_chroma_minus8 = 5;
        sps.transform_bypass_flag = 1;
        sps.crop = Crop{1, 2, 3, 5};
        EXPECT_EQ(parse(sps), (Size{1280 - 2 * 3 - 2 * 5, 720 - 2 * 1 - 2 * 2}));
    }
}

TEST(H264Parse, EveryOtherProfileHasNoChromaFields) {
    for (unsigned int profile = 0; profile < 256; ++profile) {
        if (std::find(std::begin(profiles_with_chroma_fields),
                      std::end(profiles_with_chroma_fields),
                      profile) != std::end(profiles_with_chroma_fields)) {
            continue;
        }
        SCOPED_TRACE(profile);
        Sps sps;
        sps.profile_idc = profile;
        sps.crop = Crop{1, 2, 3, 5};
        EXPECT_EQ(parse(sps), (Size{1280 - 2 * 3 - 2 * 5, 720 - 2 * 1 - 2 * 2}));
    }
}

TEST(H264Parse, Profile128IsReadWithoutChromaFields) {
    Sps sps;
    sps.profile_idc = 128;
    sps.pic_width_in_mbs_minus1 = 10;
    sps.pic_height_in_map_units_minus1 = 8;
    EXPECT_EQ(parse(sps), (Size{176, 144}));
}

TEST(H264Parse, SkipsTheSetIdAndOtherLargeFields) {
    Sps sps;
    sps.seq_parameter_set_id = 31;
    sps.log2_max_frame_num_minus4 = 12;
    sps.max_num_ref_frames = 16;
    sps.gaps_allowed_flag = 1;
    sps.direct_8x8_inference_flag = 0;
    EXPECT_EQ(parse(sps), (Size{1280, 720}));
}

// ---- Chroma format ----

TEST(H264Parse, OnlyChromaFormat3HasTheColourPlaneFlag) {
    for (uint64_t format = 0; format < 8; ++format) {
        for (unsigned int flag = 0; flag < 2; ++flag) {
            SCOPED_TRACE(testing::Message() << format << ", " << flag);
            Sps sps = high_sps();
            sps.profile_idc = 244;
            sps.chroma_format_idc = format;
            sps.separate_colour_plane_flag = flag;
            sps.bit_depth_luma_minus8 = 1;
            sps.bit_depth_chroma_minus8 = 3;
            sps.crop = Crop{1, 2, 3, 5};
            EXPECT_EQ(parse(sps), (Size{1264, 714}));
        }
    }
}

// ---- Scaling lists ----

TEST(H264Parse, SkipsAScalingMatrixWithoutLists) {
    Sps sps = high_sps();
    sps.scaling_lists.resize(8);
    EXPECT_EQ(parse(sps), (Size{1280, 720}));
}

TEST(H264Parse, SkipsFullScalingLists) {
    // 8 + 16 or 64 times the delta never reaches a multiple of 256 for these.
    for (const int64_t delta : {0, 1, 2, 3, -3, -5}) {
        SCOPED_TRACE(delta);
        Sps sps = high_sps();
        sps.scaling_lists = eight_lists(delta);
        EXPECT_EQ(parse(sps), (Size{1280, 720}));
    }
}

TEST(H264Parse, SkipsEachScalingListAlone) {
    // Lists 0 to 5 have 16 entries, lists 6 and 7 have 64.
    for (size_t present = 0; present < 8; ++present) {
        SCOPED_TRACE(present);
        Sps sps = high_sps();
        sps.scaling_lists = eight_lists(1);
        for (size_t list = 0; list < 8; ++list) {
            if (list != present) {
                sps.scaling_lists[list].clear();
            }
        }
        sps.crop = Crop{1, 2, 3, 5};
        EXPECT_EQ(parse(sps), (Size{1264, 714}));
    }
}

TEST(H264Parse, ScalingListsEndEarlyAtZero) {
    Sps sps = high_sps();
    sps.scaling_lists = {
        {-8},           // 8 - 8 = 0 at the first entry
        {4, -12},       // 12, 0
        {-7, -1},       // 1, 0
        {},             //
        {248},          // 8 + 248 = 256
        {-4, -4},       // 4, 0
        {1, 2, 3, -14}, // 9, 11, 14, 0
        {92, 100, 56},  // 100, 200, 256
    };
    sps.crop = Crop{1, 2, 3, 5};
    EXPECT_EQ(parse(sps), (Size{1264, 714}));
}

TEST(H264Parse, ScalingListMayEndAtItsLastEntry) {
    Sps sps = high_sps();
    sps.scaling_lists.resize(8);
    sps.scaling_lists[2] = ScalingList(15, 1);
    sps.scaling_lists[2].push_back(-23); // 8 + 15 - 23
    sps.scaling_lists[6] = ScalingList(63, 1);
    sps.scaling_lists[6].push_back(-71);
    EXPECT_EQ(parse(sps), (Size{1280, 720}));
}

TEST(H264Parse, ScalingListScalesWrapModulo256) {
    Sps sps = high_sps();
    sps.scaling_lists = {
        {-9, 1},        // -1 is 255, then 256 is 0
        {-128, 120},    // -120 is 136, then 256
        {-300, 36},     // -36 is 220, then 256
        {-264},         // -256 is 0
        {-520},         // -512 is 0
        {500, 4},       // 508 is 252, then 256
        {-1000000, 56}, // -999992 is 56 short of -3906 * 256: 200, then 256
        {1000000, -72}, // 1000008 is 3906 * 256 and 72, then 0
    };
    sps.crop = Crop{1, 2, 3, 5};
    EXPECT_EQ(parse(sps), (Size{1264, 714}));
}

TEST(H264Parse, ScalingListTakesTheLargestDeltas) {
    constexpr int64_t most = (int64_t{1} << 32) - 1; // 32 leading zeros: the longest code
    Sps sps = high_sps();
    sps.scaling_lists.resize(8);
    sps.scaling_lists[0] = {most, -7};                   // 8 - 1 = 7 modulo 256, then 0
    sps.scaling_lists[1] = {-most, -9};                  // 8 + 1 = 9, then 0
    sps.scaling_lists[7] = {most, most, most, most, -4}; // 7, 6, 5, 4, 0
    EXPECT_EQ(parse(sps), (Size{1280, 720}));
}

// ---- Picture order count ----

TEST(H264Parse, PicOrderCntType0HasOneMoreField) {
    for (const uint64_t log2 : {0U, 2U, 12U}) {
        Sps sps;
        sps.pic_order_cnt_type = 0;
        sps.log2_max_pic_order_cnt_lsb_minus4 = log2;
        EXPECT_EQ(parse(sps), (Size{1280, 720}));
    }
}

TEST(H264Parse, PicOrderCntType1HasACycleOfOffsets) {
    for (size_t cycle = 0; cycle < 256; cycle += 5) {
        SCOPED_TRACE(cycle);
        Sps sps;
        sps.pic_order_cnt_type = 1;
        for (size_t i = 0; i < cycle; ++i) {
            sps.offsets_for_ref_frame.push_back(static_cast<int64_t>(i) - 100);
        }
        sps.crop = Crop{1, 2, 3, 5};
        EXPECT_EQ(parse(sps), (Size{1264, 714}));
    }
}

TEST(H264Parse, OtherPicOrderCntTypesHaveNoFields) {
    for (const uint64_t type : {2U, 3U, 4U, 100U}) {
        Sps sps;
        sps.pic_order_cnt_type = type;
        EXPECT_EQ(parse(sps), (Size{1280, 720}));
    }
}

// ---- Sizes ----

TEST(H264Parse, InterlacedStreamsDoubleTheHeight) {
    for (unsigned int adaptive = 0; adaptive < 2; ++adaptive) {
        Sps sps;
        sps.pic_width_in_mbs_minus1 = 119;
        sps.pic_height_in_map_units_minus1 = 33;
        sps.frame_mbs_only_flag = 0;
        sps.mb_adaptive_flag = adaptive;
        EXPECT_EQ(parse(sps), (Size{1920, 1088}));
        // The crop offsets are not doubled.
        sps.crop = Crop{1, 2, 3, 5};
        EXPECT_EQ(parse(sps), (Size{1904, 1082}));
    }
}

TEST(H264Parse, CropPairsAreCrossed) {
    Sps sps;
    sps.pic_width_in_mbs_minus1 = 119;
    sps.pic_height_in_map_units_minus1 = 67;
    sps.crop = Crop{.left = 1, .right = 0, .top = 0, .bottom = 0};
    EXPECT_EQ(parse(sps), (Size{1920, 1086}));
    sps.crop = Crop{.left = 0, .right = 10, .top = 0, .bottom = 0};
    EXPECT_EQ(parse(sps), (Size{1920, 1068}));
    sps.crop = Crop{.left = 0, .right = 0, .top = 100, .bottom = 0};
    EXPECT_EQ(parse(sps), (Size{1720, 1088}));
    sps.crop = Crop{.left = 0, .right = 0, .top = 0, .bottom = 300};
    EXPECT_EQ(parse(sps), (Size{1320, 1088}));
    sps.crop = Crop{.left = 1, .right = 10, .top = 100, .bottom = 300};
    EXPECT_EQ(parse(sps), (Size{1120, 1066}));
    sps.crop = Crop{.left = 0, .right = 0, .top = 0, .bottom = 0};
    EXPECT_EQ(parse(sps), (Size{1920, 1088}));
}

TEST(H264Parse, FullHdLosesItsBottomCropInTheWidth) {
    Sps sps = high_sps();
    sps.pic_width_in_mbs_minus1 = 119;
    sps.pic_height_in_map_units_minus1 = 67;
    sps.crop = Crop{.left = 0, .right = 0, .top = 0, .bottom = 4};
    EXPECT_EQ(parse(sps), (Size{1912, 1088}));
}

TEST(H264Parse, SizesMayBeNegative) {
    Sps sps;
    sps.pic_width_in_mbs_minus1 = 0;
    sps.pic_height_in_map_units_minus1 = 0;
    sps.crop = Crop{20, 30, 40, 60};
    EXPECT_EQ(parse(sps), (Size{16 - 80 - 120, 16 - 40 - 60}));
}

TEST(H264Parse, SizesWrapAt32Bits) {
    constexpr uint64_t most = (uint64_t{1} << 33) - 2; // 32 zeros, then 33 ones
    Sps sps;
    sps.pic_width_in_mbs_minus1 = most;            // 2^33 - 1 macroblocks: -16 modulo 2^32
    sps.pic_height_in_map_units_minus1 = most - 1; // 2^33 - 2: -32, twice for interlaced
    EXPECT_EQ(parse(sps), (Size{-16, -32}));
    sps.frame_mbs_only_flag = 0;
    EXPECT_EQ(parse(sps), (Size{-16, -64}));
    sps.crop = Crop{most, most, most, most}; // each counts 2 * -2
    EXPECT_EQ(parse(sps), (Size{-16 + 8, -64 + 8}));
}

TEST(H264Parse, AnyBytesAreReadWithoutInterpretation) {
    // Profile 255, then only ones: every number is 0, cropping is on.
    const std::vector<unsigned char> ones(8, 0xFF);
    EXPECT_EQ(parse_guarded(ones, ones.size()), (Size{16, 16}));
}

TEST(H264Parse, EmulationPreventionBytesAreData) {
    Sps sps;
    sps.log2_max_frame_num_minus4 = 1;
    sps.pic_order_cnt_type = 0;
    sps.pic_width_in_mbs_minus1 = (3U << 21) - 1; // 22 zeros, 11 and 21 more, from byte 5 on
    const BitWriter writer = write_sps(sps);
    ASSERT_EQ(writer.bytes[5], 0x00);
    ASSERT_EQ(writer.bytes[6], 0x00);
    ASSERT_EQ(writer.bytes[7], 0x03);
    EXPECT_EQ(parse(sps), (Size{(3 << 21) * 16, 720}));
}

TEST(H264Parse, LongestExponentialGolombCodesAreSkipped) {
    for (const uint64_t value :
         {(uint64_t{1} << 31) - 2, (uint64_t{1} << 31) - 1, (uint64_t{1} << 32) - 2,
          (uint64_t{1} << 32) - 1, (uint64_t{1} << 33) - 2}) {
        SCOPED_TRACE(value);
        Sps sps = high_sps();
        sps.seq_parameter_set_id = value;
        sps.chroma_format_idc = value;
        sps.log2_max_frame_num_minus4 = value;
        sps.pic_order_cnt_type = value;
        sps.max_num_ref_frames = value;
        EXPECT_EQ(parse(sps), (Size{1280, 720}));
    }
}

TEST(H264Parse, NumbersOf33BitsAreNotCut) {
    constexpr uint64_t beyond = uint64_t{1} << 32;
    Sps sps = high_sps();
    sps.chroma_format_idc = beyond + 3; // not 3: no colour plane flag
    EXPECT_EQ(parse(sps), (Size{1280, 720}));
    for (const uint64_t type : {beyond, beyond + 1}) { // neither 0 nor 1: no fields
        sps.pic_order_cnt_type = type;
        EXPECT_EQ(parse(sps), (Size{1280, 720}));
    }
}

TEST(H264Parse, CountsNoMoreThan32Zeros) {
    // 40 zeros and 25 bits: 32 zeros, one bit that ends them, and a suffix of 32 bits.
    const Sps sps;
    BitWriter writer;
    put_bits(writer, 66, 8);
    put_bits(writer, 0, 16);
    put_bits(writer, 0, 40);
    put_bits(writer, 0x1FFFFFF, 25);
    const BitWriter rest = write_sps(sps);
    for (size_t bit = 25; bit < rest.bits; ++bit) { // after the one bit of seq_parameter_set_id
        put_bits(writer, (rest.bytes[bit / 8] >> (7 - bit % 8)) & 1U, 1);
    }
    EXPECT_EQ(parse_guarded(writer.bytes, writer.bytes.size()), (Size{1280, 720}));
}

// ---- Random sets ----

TEST(H264Parse, RandomSetsGiveTheSizesOfTheFormula) {
    for (unsigned int seed = 1; seed <= 3000; ++seed) {
        std::mt19937 generator(seed);
        const auto pick = [&generator](unsigned int most) {
            return std::uniform_int_distribution<unsigned int>(0, most)(generator);
        };
        Sps sps;
        sps.profile_idc = pick(1) != 0 ? profiles_with_chroma_fields[pick(7)] : 66;
        sps.has_chroma_fields = sps.profile_idc != 66;
        sps.seq_parameter_set_id = pick(31);
        sps.chroma_format_idc = pick(3);
        sps.separate_colour_plane_flag = pick(1);
        sps.bit_depth_luma_minus8 = pick(6);
        sps.bit_depth_chroma_minus8 = pick(6);
        sps.transform_bypass_flag = pick(1);
        if (pick(1) != 0) {
            sps.scaling_lists.resize(8);
            for (size_t list = 0; list < 8; ++list) {
                int64_t last = 8;
                const size_t entries = list < 6 ? 16 : 64;
                const bool present = pick(1) != 0;
                while (present && last != 0 && sps.scaling_lists[list].size() < entries) {
                    const int64_t next = pick(15) == 0 ? 0 : pick(255);
                    const int64_t turns = int64_t{pick(4)} - 2;
                    sps.scaling_lists[list].push_back(next - last + 256 * turns);
                    last = next;
                }
            }
        }
        sps.log2_max_frame_num_minus4 = pick(12);
        sps.pic_order_cnt_type = pick(2);
        sps.log2_max_pic_order_cnt_lsb_minus4 = pick(12);
        sps.offset_for_non_ref_pic = int64_t{pick(2000)} - 1000;
        sps.offset_for_top_to_bottom_field = int64_t{pick(2000)} - 1000;
        for (unsigned int i = pick(20); i > 0; --i) {
            sps.offsets_for_ref_frame.push_back(int64_t{pick(2000)} - 1000);
        }
        sps.max_num_ref_frames = pick(16);
        sps.gaps_allowed_flag = pick(1);
        sps.pic_width_in_mbs_minus1 = pick(1023);
        sps.pic_height_in_map_units_minus1 = pick(1023);
        sps.frame_mbs_only_flag = pick(1);
        sps.mb_adaptive_flag = pick(1);
        sps.direct_8x8_inference_flag = pick(1);
        Crop crop = {0, 0, 0, 0};
        if (pick(3) != 0) {
            crop = Crop{pick(300), pick(300), pick(300), pick(300)};
            sps.crop = crop;
        }
        const int mbs_wide = static_cast<int>(sps.pic_width_in_mbs_minus1) + 1;
        const int units_high = static_cast<int>(sps.pic_height_in_map_units_minus1) + 1;
        const int units_per_row = sps.frame_mbs_only_flag != 0 ? 1 : 2;
        const Size expected = {
            mbs_wide * 16 - 2 * static_cast<int>(crop.top + crop.bottom),
            units_per_row * units_high * 16 - 2 * static_cast<int>(crop.left + crop.right),
        };
        ASSERT_EQ(parse(sps), expected) << "seed " << seed;
    }
}

// ---- The end of the data ----

// Baseline sets without cropping, one for each position of the last bit within its byte.
static std::vector<Sps> sets_of_all_lengths() {
    std::vector<Sps> sets;
    bool seen[8] = {};
    for (const uint64_t type : {0U, 2U}) {
        for (const uint64_t log2 : {0U, 1U, 3U, 7U}) { // 1, 3, 5 and 7 bits
            Sps sps;
            sps.pic_order_cnt_type = type;
            sps.log2_max_frame_num_minus4 = log2;
            const size_t position = write_sps(sps).bits % 8;
            EXPECT_FALSE(seen[position]);
            seen[position] = true;
            sets.push_back(sps);
        }
    }
    return sets;
}

// The set whose cropping flag is the first bit of a byte, with ones before it.
static Sps set_with_flag_behind_a_byte() {
    for (const Sps &sps : sets_of_all_lengths()) {
        if (write_sps(sps).bits % 8 == 1) {
            return sps;
        }
    }
    ADD_FAILURE() << "no such set";
    return {};
}

TEST(H264ParseEnd, TheLastBitMayLieJustBehindTheData) {
    for (const Sps &sps : sets_of_all_lengths()) {
        const BitWriter writer = write_sps(sps);
        SCOPED_TRACE(testing::Message() << writer.bits << " bits");
        const size_t enough = shortest_length(writer.bits);
        EXPECT_EQ(parse_guarded(writer.bytes, enough), (Size{1280, 720}));
        EXPECT_EQ(parse_guarded(writer.bytes, writer.bytes.size()), (Size{1280, 720}));
        expect_abort(writer.bytes, enough - 1);
    }
}

TEST(H264ParseEnd, TheBitBehindTheDataIsZeroWhateverLiesThere) {
    Sps sps = set_with_flag_behind_a_byte();
    sps.crop = Crop{1, 2, 3, 5};
    const BitWriter writer = write_sps(sps);
    const size_t before_flag = write_sps(set_with_flag_behind_a_byte()).bits / 8;
    EXPECT_EQ(writer.bytes[before_flag] & 0x80, 0x80);
    EXPECT_EQ(parse(writer.bytes.data(), writer.bytes.size()), (Size{1264, 714}));
    EXPECT_EQ(parse(writer.bytes.data(), before_flag), (Size{1280, 720}));
    EXPECT_EQ(parse_guarded(writer.bytes, before_flag), (Size{1280, 720}));
}

TEST(H264ParseEnd, TheLastCropBitMayBeCutOff) {
    // The cropping fields take 3, 3, 5 and 5 bits; with 16 bits, a set whose flag is the first bit
    // of a byte has the last bit of `bottom` there, too.
    Sps sps = set_with_flag_behind_a_byte();
    sps.crop = Crop{1, 2, 3, 4};
    const BitWriter writer = write_sps(sps);
    ASSERT_EQ(writer.bits % 8, 1U);
    EXPECT_EQ(parse_guarded(writer.bytes, writer.bytes.size()), (Size{1266, 714}));
    // 00101 loses its last 1 and reads as 00100.
    EXPECT_EQ(parse_guarded(writer.bytes, writer.bytes.size() - 1), (Size{1268, 714}));
    expect_abort(writer.bytes, writer.bytes.size() - 2);
}

TEST(H264ParseEnd, TruncatedBaselineSetsAbort) {
    for (const Sps &sps : sets_of_all_lengths()) {
        expect_abort_when_truncated(sps, Size{1280, 720});
    }
}

TEST(H264ParseEnd, ATruncatedCroppedSetAborts) {
    Sps sps;
    sps.frame_mbs_only_flag = 0;
    sps.crop = Crop{100, 200, 300, 500};
    expect_abort_when_truncated(sps, Size{-320, 840});
}

TEST(H264ParseEnd, ATruncatedSetWithScalingListsAborts) {
    Sps sps = high_sps();
    sps.scaling_lists = eight_lists(1);
    sps.scaling_lists[6] = {5, -13};
    sps.scaling_lists[7].clear();
    expect_abort_when_truncated(sps, Size{1280, 720});
}

TEST(H264ParseEnd, ATruncatedSetWithAnOrderCycleAborts) {
    Sps sps;
    sps.pic_order_cnt_type = 1;
    sps.offsets_for_ref_frame = {1, -2, 3, -4, 500, -600};
    expect_abort_when_truncated(sps, Size{1280, 720});
}

// The length in bits needs more than 32 bits here. Only the first page is ever touched.
TEST(H264ParseEnd, DataOfHalfAGigabyteIsRead) {
    constexpr size_t length = size_t{1} << 29;
    void *bytes = mmap(nullptr, length, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (bytes == MAP_FAILED) {
        GTEST_SKIP() << "no address space";
    }
    const BitWriter writer = write_sps(Sps{});
    std::memcpy(bytes, writer.bytes.data(), writer.bytes.size());
    EXPECT_EQ(parse(static_cast<unsigned char *>(bytes), length), (Size{1280, 720}));
    munmap(bytes, length);
}

TEST(H264ParseEnd, AnEmptySetAborts) {
    expect_abort({}, 0);
    expect_abort({66, 0xC0, 10, 0xDA, 0x56}, 0);
    EXPECT_EXIT(parse(nullptr, 0), testing::KilledBySignal(SIGABRT), past_end_message);
}

TEST(H264ParseEnd, ANullPointerCountsAsEmpty) {
    EXPECT_EXIT(parse(nullptr, 100), testing::KilledBySignal(SIGABRT), past_end_message);
}

TEST(H264ParseEnd, ZerosAbort) {
    for (size_t length = 1; length <= 24; ++length) {
        expect_abort(std::vector<unsigned char>(length, 0), length);
    }
}

TEST(H264ParseEnd, AHugeOrderCycleEndsWithTheData) {
    BitWriter writer;
    put_bits(writer, 66, 8);
    put_bits(writer, 0, 16);
    put_ue(writer, 0);
    put_ue(writer, 0);
    put_ue(writer, 1); // pic_order_cnt_type
    put_bits(writer, 0, 1);
    put_se(writer, 0);
    put_se(writer, 0);
    put_ue(writer, (uint64_t{1} << 33) - 2);
    writer.bytes.resize(4096, 0xFF);
    expect_abort(writer.bytes, writer.bytes.size());
}
