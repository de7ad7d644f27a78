#include "app/arguments.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include "support/printed.h"

namespace vesk {
namespace {

constexpr std::chrono::nanoseconds second = std::chrono::seconds(1);

struct Outcome {
    std::optional<Arguments> arguments;
    std::string printed;
};

Outcome parse(const std::vector<const char*>& texts) {
    Outcome outcome;
    errno = 0;
    outcome.printed = printedBy([&] { outcome.arguments = parseArguments(texts); });
    return outcome;
}

Arguments expectAccepted(const std::vector<const char*>& texts) {
    const Outcome outcome = parse(texts);
    EXPECT_EQ(outcome.printed, "");
    EXPECT_TRUE(outcome.arguments.has_value());
    return outcome.arguments.value_or(Arguments());
}

void expectRefused(const std::vector<const char*>& texts, const std::string& line) {
    const Outcome outcome = parse(texts);
    EXPECT_EQ(outcome.printed, line);
    EXPECT_FALSE(outcome.arguments.has_value());
}

TEST(ArgumentsTest, HasADefaultForEveryArgument) {
    const Arguments arguments = expectAccepted({});
    EXPECT_EQ(arguments.framingVersion, 2);
    EXPECT_EQ(arguments.cleanUpInterval, 600 * second);
    EXPECT_TRUE(arguments.cleanUp.main);
    EXPECT_TRUE(arguments.cleanUp.aux);
}

TEST(ArgumentsTest, AcceptsBothFramingVersions) {
    EXPECT_EQ(expectAccepted({"udpv1"}).framingVersion, 1);
    EXPECT_EQ(expectAccepted({"udpv2"}).framingVersion, 2);
    EXPECT_EQ(expectAccepted({"udpv1"}).cleanUpInterval, 600 * second);
}

TEST(ArgumentsTest, RefusesAnyOtherVersion) {
    for (const std::string text : {"UDPV2", "udpv3", "", "2", "udpv2 "}) {
        expectRefused({text.c_str()}, "error Bad UDP version argument [" + text + "]\n");
    }
}

TEST(ArgumentsTest, AcceptsAnIntervalInAnyBase) {
    const auto intervalOf = [](const char* text) {
        return expectAccepted({"udpv2", text}).cleanUpInterval;
    };
    EXPECT_EQ(intervalOf("60"), 60 * second);
    EXPECT_EQ(intervalOf("0x3c"), 60 * second);
    EXPECT_EQ(intervalOf("010"), 8 * second);
    EXPECT_EQ(intervalOf("+1"), 1 * second);
    EXPECT_EQ(intervalOf("9223372036"), 9223372036 * second);
}

TEST(ArgumentsTest, RefusesAnInvalidInterval) {
    for (const std::string text : {"0", "", "x", "60s", "1.5", "9223372037", "18446744073709551616",
                                   "-1", "-0", "-18446744073709551615", " -18446744073709551615"}) {
        expectRefused({"udpv1", text.c_str()}, "error Bad duration argument [" + text + "]\n");
    }
}

TEST(ArgumentsTest, AcceptsTrueAndFalseAsSwitches) {
    const Arguments arguments = expectAccepted({"udpv2", "60", "false", "true"});
    EXPECT_FALSE(arguments.cleanUp.main);
    EXPECT_TRUE(arguments.cleanUp.aux);
    EXPECT_FALSE(expectAccepted({"udpv2", "60", "true", "false"}).cleanUp.aux);
    EXPECT_TRUE(expectAccepted({"udpv2", "60", "false"}).cleanUp.aux);
}

TEST(ArgumentsTest, RefusesAnyOtherSwitch) {
    expectRefused({"udpv2", "60", "yes"}, "error Bad flag argument at index [3]: [yes]\n");
    expectRefused({"udpv2", "60", "true", "TRUE"},
                  "error Bad flag argument at index [4]: [TRUE]\n");
    expectRefused({"udpv2", "60", "", "x"}, "error Bad flag argument at index [3]: []\n");
}

TEST(ArgumentsTest, IgnoresArgumentsAfterTheFourth) {
    const Arguments arguments = expectAccepted({"udpv2", "60", "true", "false", "extra", ""});
    EXPECT_TRUE(arguments.cleanUp.main);
    EXPECT_FALSE(arguments.cleanUp.aux);
}

TEST(ArgumentsTest, ReportsTheFirstInvalidArgument) {
    expectRefused({"x", "0", "y", "z"}, "error Bad UDP version argument [x]\n");
    expectRefused({"udpv1", "0", "y", "z"}, "error Bad duration argument [0]\n");
}

}  // namespace
}  // namespace vesk
