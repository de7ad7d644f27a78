#include "base/parse_number.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <string>

namespace vesk {
namespace {

constexpr std::uint64_t largestUnsigned = std::numeric_limits<std::uint64_t>::max();

class ParseNumberTest : public testing::Test {
 protected:
    void SetUp() override { errno = 0; }
};

struct UnsignedCase {
    const char* text;
    std::uint64_t value;
};

class AcceptedUnsignedTest : public testing::TestWithParam<UnsignedCase> {};

TEST_P(AcceptedUnsignedTest, IsRead) {
    errno = 0;
    EXPECT_EQ(parseUnsigned(GetParam().text), GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(Texts, AcceptedUnsignedTest,
                         testing::Values(UnsignedCase{"", 0}, UnsignedCase{"0", 0},
                                         UnsignedCase{"4500", 4500}, UnsignedCase{"0x10", 16},
                                         UnsignedCase{"0X1f", 31}, UnsignedCase{"010", 8},
                                         UnsignedCase{"00", 0}, UnsignedCase{" 7", 7},
                                         UnsignedCase{"\t\n\v\f\r7", 7}, UnsignedCase{"+7", 7},
                                         UnsignedCase{"-1", largestUnsigned},
                                         UnsignedCase{"-0x1", largestUnsigned},
                                         UnsignedCase{"18446744073709551614", largestUnsigned - 1},
                                         UnsignedCase{"18446744073709551615", largestUnsigned},
                                         UnsignedCase{"0xffffffffffffffff", largestUnsigned}));

class RefusedNumberTest : public testing::TestWithParam<const char*> {};

TEST_P(RefusedNumberTest, IsRefusedByEveryParser) {
    errno = 0;
    EXPECT_EQ(parseUnsigned(GetParam()), std::nullopt);
    EXPECT_EQ(parseUnsigned32(GetParam()), std::nullopt);
    EXPECT_EQ(parseSigned(GetParam()), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Texts, RefusedNumberTest,
                         testing::Values("x", "10abc", "45x", "7 ", " ", "0x", "08", "1.5", "1e3",
                                         "--1", "+", "-", "0b1", "99999999999999999999999999"));

TEST_F(ParseNumberTest, RefusesATextThatContainsANul) {
    EXPECT_EQ(parseUnsigned(std::string("12\0", 3)), std::nullopt);
    EXPECT_EQ(parseUnsigned(std::string("12\0"
                                        "34",
                                        5)),
              std::nullopt);
    EXPECT_EQ(parseSigned(std::string("\0", 1)), std::nullopt);
}

TEST_F(ParseNumberTest, RefusesANumberAboveTheRange) {
    EXPECT_EQ(parseUnsigned("18446744073709551616"), std::nullopt);
    EXPECT_EQ(parseSigned("9223372036854775808"), std::nullopt);
}

TEST_F(ParseNumberTest, RefusesTheLargestNumberWhileErrnoIsErange) {
    errno = ERANGE;
    EXPECT_EQ(parseUnsigned("18446744073709551615"), std::nullopt);
    errno = ERANGE;
    EXPECT_EQ(parseUnsigned("-1"), std::nullopt);
    errno = ERANGE;
    EXPECT_EQ(parseSigned("9223372036854775807"), std::nullopt);
}

TEST_F(ParseNumberTest, LeavesErrnoUnchanged) {
    errno = ERANGE;
    EXPECT_EQ(parseUnsigned("5"), 5U);
    EXPECT_EQ(errno, ERANGE);
    errno = EINVAL;
    EXPECT_EQ(parseUnsigned("18446744073709551615"), largestUnsigned);
}

TEST_F(ParseNumberTest, RefusesANumberAboveThirtyTwoBits) {
    EXPECT_EQ(parseUnsigned32("4294967295"), 4294967295U);
    EXPECT_EQ(parseUnsigned32("4294967296"), std::nullopt);
    EXPECT_EQ(parseUnsigned32("-1"), std::nullopt);
    EXPECT_EQ(parseUnsigned32(""), 0U);
    EXPECT_EQ(parseUnsigned32("0x2"), 2U);
}

TEST_F(ParseNumberTest, ReadsSignedNumbers) {
    EXPECT_EQ(parseSigned("-1"), -1);
    EXPECT_EQ(parseSigned("63"), 63);
    EXPECT_EQ(parseSigned("-0x10"), -16);
    EXPECT_EQ(parseSigned("-010"), -8);
    EXPECT_EQ(parseSigned(""), 0);
    EXPECT_EQ(parseSigned("9223372036854775807"), std::numeric_limits<std::int64_t>::max());
}

TEST_F(ParseNumberTest, ReadsASignedNumberBelowTheRangeAsTheSmallest) {
    EXPECT_EQ(parseSigned("-9223372036854775809"), std::numeric_limits<std::int64_t>::min());
}

}  // namespace
}  // namespace vesk
