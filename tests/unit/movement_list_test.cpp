#include "automove/movement_list.h"

#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <string>

constexpr const char *example = "10,5,0,2,,0.5,0.5,3,1,,0;-20,0,0,,,,,2,0,,1";
constexpr const char *example_report =
    "\tnumber 0 pan 10.0 tilt 5.0 roll 0.0 zoom 2.0 ev -1000.0 afx 0.500000 afy 0.500000 mf -1 "
    "delay 3 shot 1 hold 0\n"
    "\tnumber 1 pan -20.0 tilt 0.0 roll 0.0 zoom -1.0 ev -1000.0 afx -1.000000 afy -1.000000 "
    "mf -1 delay 2 shot 0 hold 1\n";
constexpr int32_t largest = std::numeric_limits<int32_t>::max();
constexpr int32_t smallest = std::numeric_limits<int32_t>::min();

struct ParsedMovements {
    MovementList list;
    std::string report;
};

// Parses into a list that already holds something else.
static ParsedMovements parse(const std::string &text) {
    ParsedMovements parsed;
    memset(static_cast<void *>(&parsed.list), 0x55, sizeof parsed.list);
    parsed.report = "what was there before";
    parse_movements(text.c_str(), parsed.list, parsed.report);
    return parsed;
}

static std::string repeat(const std::string &text, int times) {
    std::string all;
    for (int i = 0; i < times; ++i) {
        all += text;
    }
    return all;
}

// A list of movements with the pans 1, 2, 3 ..., each followed by `after`.
static std::string numbered(int count, const std::string &after = ";") {
    std::string text;
    for (int i = 1; i <= count; ++i) {
        text += std::to_string(i) + ",,,,,,,,," + after;
    }
    return text;
}

static void expect_same(const Movement &found, const Movement &wanted) {
    EXPECT_EQ(found.pan, wanted.pan);
    EXPECT_EQ(found.tilt, wanted.tilt);
    EXPECT_EQ(found.roll, wanted.roll);
    EXPECT_EQ(found.zoom, wanted.zoom);
    EXPECT_EQ(found.ev, wanted.ev);
    EXPECT_EQ(found.afx, wanted.afx);
    EXPECT_EQ(found.afy, wanted.afy);
    EXPECT_EQ(found.delay, wanted.delay);
    EXPECT_EQ(found.shot, wanted.shot);
    EXPECT_EQ(found.mf, wanted.mf);
    EXPECT_EQ(found.hold, wanted.hold);
}

constexpr Movement nothing_set{-1000, -1000, -1000, -1, -1000, -1, -1, 0, 0, -1, 0};

TEST(MovementList, ReadsTheFieldsInTheirOrder) {
    const ParsedMovements parsed = parse("1.5,-2.25,3e1,4.5,-0.5,0.25,0.75,8,9,10.5,11");
    ASSERT_EQ(parsed.list.count, 1);
    expect_same(parsed.list.movements[0], {1.5, -2.25, 30, 4.5, -0.5, 0.25, 0.75, 8, 9, 10.5, 11});
}

TEST(MovementList, ReadsSeveralMovements) {
    const ParsedMovements parsed = parse(example);
    ASSERT_EQ(parsed.list.count, 2);
    expect_same(parsed.list.movements[0], {10, 5, 0, 2, -1000, 0.5, 0.5, 3, 1, -1, 0});
    expect_same(parsed.list.movements[1], {-20, 0, 0, -1, -1000, -1, -1, 2, 0, -1, 1});
    EXPECT_EQ(parsed.report, example_report);
    for (int i = 2; i < movement_capacity; ++i) {
        expect_same(parsed.list.movements[i], {});
    }
}

TEST(MovementList, EmptyTokensAreNotSet) {
    for (const char *text : {",,,,,,,,,", ",,,,,,,,,,"}) {
        const ParsedMovements parsed = parse(text);
        ASSERT_EQ(parsed.list.count, 1) << text;
        expect_same(parsed.list.movements[0], nothing_set);
        EXPECT_EQ(parsed.report,
                  "\tnumber 0 pan -1000.0 tilt -1000.0 roll -1000.0 zoom -1.0 ev -1000.0 "
                  "afx -1.000000 afy -1.000000 mf -1 delay 0 shot 0 hold 0\n");
    }
}

TEST(MovementList, EachEmptyTokenHasItsOwnDefault) {
    const Movement full{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    double Movement::*const reals[] = {&Movement::pan,  &Movement::tilt, &Movement::roll,
                                       &Movement::zoom, &Movement::ev,   &Movement::afx,
                                       &Movement::afy,  nullptr,         nullptr,
                                       &Movement::mf,   nullptr};
    int32_t Movement::*const integers[] = {
        nullptr, nullptr,          nullptr,         nullptr, nullptr,        nullptr,
        nullptr, &Movement::delay, &Movement::shot, nullptr, &Movement::hold};
    for (int field = 0; field < 11; ++field) {
        std::string text;
        for (int i = 0; i < 11; ++i) {
            text += i == 0 ? "" : ",";
            text += i == field ? "" : std::to_string(i + 1);
        }
        Movement wanted = full;
        if (reals[field] != nullptr) {
            wanted.*reals[field] = nothing_set.*reals[field];
        } else {
            wanted.*integers[field] = 0;
        }
        const ParsedMovements parsed = parse(text);
        ASSERT_EQ(parsed.list.count, 1) << text;
        SCOPED_TRACE(text);
        expect_same(parsed.list.movements[0], wanted);
    }
}

TEST(MovementList, ABlankTokenIsZero) {
    const ParsedMovements parsed = parse(" , ,\t, , , , , , , , ");
    ASSERT_EQ(parsed.list.count, 1);
    expect_same(parsed.list.movements[0], {});
}

TEST(MovementList, TextIsZeroAndNumbersEndWhereTheyEnd) {
    const ParsedMovements parsed = parse("left,5up, 7,--1,+2,.5,0x10,two,0x10,1 2, 3x");
    ASSERT_EQ(parsed.list.count, 1);
    expect_same(parsed.list.movements[0], {0, 5, 7, 0, 2, 0.5, 16, 0, 0, 1, 3});
    expect_same(parse(",,,,,,,2.9,-1.9,,1e3").list.movements[0],
                {-1000, -1000, -1000, -1, -1000, -1, -1, 2, -1, -1, 1});
}

TEST(MovementList, AMissingHoldIsZero) {
    const ParsedMovements parsed =
        parse("1,2,3,4,5,6,7,8,9,10;1,2,3,4,5,6,7,8,9,10,7;1,2,3,4,5,6,7,8,9,10");
    ASSERT_EQ(parsed.list.count, 3);
    EXPECT_EQ(parsed.list.movements[0].hold, 0);
    EXPECT_EQ(parsed.list.movements[1].hold, 7);
    EXPECT_EQ(parsed.list.movements[2].hold, 0);
}

TEST(MovementList, FieldsAfterTheLastAreIgnored) {
    const ParsedMovements parsed = parse("1,2,3,4,5,6,7,8,9,10,11,12,13;,,,,,,,,,");
    ASSERT_EQ(parsed.list.count, 2);
    expect_same(parsed.list.movements[0], {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
    expect_same(parsed.list.movements[1], nothing_set);
}

TEST(MovementList, APieceOfNineFieldsIsNotCounted) {
    const ParsedMovements parsed = parse("1,2,3,4,5,6,7,8,9");
    EXPECT_EQ(parsed.list.count, 0);
    EXPECT_EQ(parsed.report, "");
    // The fields it had stay; the missing ones keep their cleared values.
    expect_same(parsed.list.movements[0], {1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 0});
    expect_same(parse("5").list.movements[0], {5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    expect_same(parse(",7").list.movements[0], {-1000, 7, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    expect_same(parse("").list.movements[0], {-1000, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
}

TEST(MovementList, TheNextPieceBecomesTheMovementThatWasIncomplete) {
    const ParsedMovements parsed = parse("9,9,9,9,9,9,9,9,9;,2,,,,,,,,4;8,8;3,,,,,,,,,;6,6,6");
    ASSERT_EQ(parsed.list.count, 2);
    expect_same(parsed.list.movements[0], {-1000, 2, -1000, -1, -1000, -1, -1, 0, 0, 4, 0});
    expect_same(parsed.list.movements[1], {3, -1000, -1000, -1, -1000, -1, -1, 0, 0, -1, 0});
    expect_same(parsed.list.movements[2], {6, 6, 6, 0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_NE(parsed.report.find("\tnumber 0 pan -1000.0 tilt 2.0 "), std::string::npos);
    EXPECT_NE(parsed.report.find("\tnumber 1 pan 3.0 "), std::string::npos);
}

TEST(MovementList, WhatAnIncompletePieceLeftIsWrittenOverFieldByField) {
    expect_same(parse("1,2,3;7").list.movements[0], {7, 2, 3, 0, 0, 0, 0, 0, 0, 0, 0});
    expect_same(parse("1,2,3,4,5,6,7,8,9;;7,").list.movements[0],
                {7, -1000, 3, 4, 5, 6, 7, 8, 9, 0, 0});
}

TEST(MovementList, EmptyPiecesAreNotCounted) {
    EXPECT_EQ(parse("").list.count, 0);
    EXPECT_EQ(parse(";").list.count, 0);
    EXPECT_EQ(parse(";;;;").list.count, 0);
    EXPECT_EQ(parse(std::string(example) + ";").list.count, 2);
    const ParsedMovements parsed = parse(";;1,,,,,,,,,;;2,,,,,,,,,;");
    ASSERT_EQ(parsed.list.count, 2);
    EXPECT_EQ(parsed.list.movements[0].pan, 1);
    EXPECT_EQ(parsed.list.movements[1].pan, 2);
}

TEST(MovementList, HasRoomForTwenty) {
    for (const int count : {1, 19, 20}) {
        EXPECT_EQ(parse(numbered(count)).list.count, count);
    }
    for (const int count : {21, 40}) {
        const ParsedMovements parsed = parse(numbered(count));
        ASSERT_EQ(parsed.list.count, 20);
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(parsed.list.movements[i].pan, i + 1);
        }
        EXPECT_NE(parsed.report.find("\tnumber 19 pan 20.0 "), std::string::npos);
        EXPECT_EQ(parsed.report.find("number 20"), std::string::npos);
    }
}

TEST(MovementList, PiecesThatAreNotCountedTakeNoRoom) {
    const ParsedMovements parsed = parse(numbered(21, ";;7,7;"));
    ASSERT_EQ(parsed.list.count, 20);
    EXPECT_EQ(parsed.list.movements[19].pan, 20);
}

TEST(MovementList, NumbersBeyond32BitsAreTheNearest) {
    const ParsedMovements parsed = parse(",,,,,,,2147483648,-2147483649,,99999999999999999999;"
                                         ",,,,,,,2147483647,-2147483648,,-99999999999999999999");
    ASSERT_EQ(parsed.list.count, 2);
    EXPECT_EQ(parsed.list.movements[0].delay, largest);
    EXPECT_EQ(parsed.list.movements[0].shot, smallest);
    EXPECT_EQ(parsed.list.movements[0].hold, largest);
    EXPECT_EQ(parsed.list.movements[1].delay, largest);
    EXPECT_EQ(parsed.list.movements[1].shot, smallest);
    EXPECT_EQ(parsed.list.movements[1].hold, smallest);
}

TEST(MovementList, StrangeNumbersAreTakenAsTheyAre) {
    const ParsedMovements parsed =
        parse("nan,inf,-inf,1e300,-1e999,nan,infinity,nan,inf,1e-999,1e9");
    ASSERT_EQ(parsed.list.count, 1);
    const Movement &movement = parsed.list.movements[0];
    EXPECT_TRUE(std::isnan(movement.pan) && std::isnan(movement.afx));
    EXPECT_EQ(movement.tilt, HUGE_VAL);
    EXPECT_EQ(movement.roll, -HUGE_VAL);
    EXPECT_EQ(movement.zoom, 1e300);
    EXPECT_EQ(movement.ev, -HUGE_VAL);
    EXPECT_EQ(movement.afy, HUGE_VAL);
    EXPECT_EQ(movement.delay, 0);
    EXPECT_EQ(movement.shot, 0);
    EXPECT_EQ(movement.mf, 0);
    EXPECT_EQ(movement.hold, 1);
    EXPECT_EQ(parsed.report.find("\tnumber 0 pan nan tilt inf roll -inf zoom 1000000"), 0U);
}

TEST(MovementList, TheReportRoundsAsPrintingDoes) {
    EXPECT_EQ(parse("1.26,-0.04,3,4.449,-0.26,0.1234567,1,-5,-6,99.6,-7").report,
              "\tnumber 0 pan 1.3 tilt -0.0 roll 3.0 zoom 4.4 ev -0.3 afx 0.123457 afy 1.000000 "
              "mf 100 delay -5 shot -6 hold -7\n");
}

TEST(MovementList, TheReportIsCutAt9999CharactersAndTheListIsNot) {
    const std::string huge = "1e300,-1e300,1e300,1e300,1e300,1e300,1e300,1,1,1e300,1";
    const ParsedMovements parsed = parse(repeat(huge + ";", 20));
    EXPECT_EQ(parsed.list.count, 20);
    EXPECT_EQ(parsed.list.movements[19].mf, 1e300);
    std::string whole;
    for (int i = 0; i < 5; ++i) {
        std::string line = parse(huge).report;
        whole += line.replace(strlen("\tnumber "), 1, std::to_string(i));
    }
    EXPECT_GT(whole.size(), 9999U);
    EXPECT_EQ(parsed.report, whole.substr(0, 9999));
}

TEST(MovementList, TheTextIsLeftAlone) {
    char text[] = "1,2,3,4,5,6,7,8,9,10,11;1,2;";
    const std::string before = text;
    MovementList list;
    std::string report;
    parse_movements(text, list, report);
    EXPECT_EQ(std::string(text, sizeof text - 1), before);
}

static std::string said_by_setting(const char *text) {
    ::testing::internal::CaptureStderr();
    set_movement_list(text);
    return ::testing::internal::GetCapturedStderr();
}

TEST(MovementTable, SettingAListReportsIt) {
    EXPECT_EQ(said_by_setting(example), std::string("Auto movement set list ") + example +
                                            "\nAdded 2 movements:\n" + example_report + "\n");
    EXPECT_EQ(said_by_setting(""), "Auto movement set list \nAdded 0 movements:\n\n");
    EXPECT_EQ(said_by_setting("1%s%n;"), "Auto movement set list 1%s%n;\nAdded 0 movements:\n\n");
}

TEST(MovementTable, HoldsWhatWasSet) {
    said_by_setting("1.5,-2.25,30,4.5,-0.5,0.25,0.75,2147483648,-2147483649,10.5,-11;,,,,,,,,,;7");
    ASSERT_EQ(movement_count(), 2);
    expect_same(movement_at(0),
                {1.5, -2.25, 30, 4.5, -0.5, 0.25, 0.75, largest, smallest, 10.5, -11});
    expect_same(movement_at(1), nothing_set);
    expect_same(movement_at(2), {7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    expect_same(movement_at(movement_capacity - 1), {});
}

TEST(MovementTable, HoldsStrangeNumbers) {
    said_by_setting("nan,inf,-inf,1e300,,,,,,,");
    EXPECT_TRUE(std::isnan(movement_at(0).pan));
    EXPECT_EQ(movement_at(0).tilt, HUGE_VAL);
    EXPECT_EQ(movement_at(0).roll, -HUGE_VAL);
    EXPECT_EQ(movement_at(0).zoom, 1e300);
}

TEST(MovementTable, HoldsTwenty) {
    said_by_setting(numbered(21).c_str());
    ASSERT_EQ(movement_count(), 20);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(movement_at(i).pan, i + 1);
        EXPECT_EQ(movement_at(i).tilt, -1000);
    }
}

TEST(MovementTable, AListReplacesTheOneBefore) {
    said_by_setting(numbered(20).c_str());
    said_by_setting(example);
    ASSERT_EQ(movement_count(), 2);
    expect_same(movement_at(0), {10, 5, 0, 2, -1000, 0.5, 0.5, 3, 1, -1, 0});
    for (int i = 2; i < movement_capacity; ++i) {
        expect_same(movement_at(i), {});
    }
    said_by_setting("");
    EXPECT_EQ(movement_count(), 0);
}

TEST(MovementTable, AMissingListChangesNothing) {
    said_by_setting(example);
    EXPECT_EQ(said_by_setting(nullptr), "Auto movement set list (null)\n");
    ASSERT_EQ(movement_count(), 2);
    expect_same(movement_at(0), {10, 5, 0, 2, -1000, 0.5, 0.5, 3, 1, -1, 0});
    expect_same(movement_at(1), {-20, 0, 0, -1, -1000, -1, -1, 2, 0, -1, 1});
}

TEST(MovementTable, KnowsWhetherAListIsNew) {
    set_movement_list("1,2,3,,,,,4,1,,1");
    EXPECT_FALSE(set_movement_list("1,2,3,,,,,4,1,,1"));
    EXPECT_FALSE(set_movement_list("1.0,2,3,,,,,4,1,,1;")) << "written otherwise";
    EXPECT_FALSE(set_movement_list(nullptr));
    EXPECT_TRUE(set_movement_list("1,2,3,,,,,5,1,,1")) << "another delay";
    EXPECT_TRUE(set_movement_list("1,2,3,,,,,5,1,,1;1,2,3,,,,,5,1,,1")) << "one more";
    EXPECT_TRUE(set_movement_list("1,2,3,,,,,5,1,,1")) << "one less";
    EXPECT_TRUE(set_movement_list(""));
    EXPECT_FALSE(set_movement_list(""));
}
