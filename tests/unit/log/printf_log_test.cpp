#include "log/printf_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <string>

#include "support/printed.h"

namespace vesk {
namespace {

using testing::MatchesRegex;

// In POSIX syntax, which the matchers use.
const std::string timestampPattern =
    "\\[[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}\\]";

[[gnu::format(printf, 3, 4)]] std::string compose(const char* kind, const std::string& timestamp,
                                                  const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::string message = composePrintfMessage(kind, timestamp, format, arguments);
    va_end(arguments);
    return message;
}

timeval momentOf(time_t seconds, suseconds_t microseconds) {
    return {seconds, microseconds};
}

TEST(TimestampTest, GivesUtcWithMillisecondsTruncated) {
    const timeval moment = momentOf(1714557600, 123999);
    EXPECT_EQ(formatTimestamp(&moment), "[2024-05-01T10:00:00.123]");
}

TEST(TimestampTest, PadsEveryFieldWithZeros) {
    const timeval moment = momentOf(0, 7000);
    EXPECT_EQ(formatTimestamp(&moment), "[1970-01-01T00:00:00.007]");
}

TEST(TimestampTest, CountsMonthsFromOneAndYearsFromTheCommonEra) {
    const timeval moment = momentOf(1735689599, 999999);
    EXPECT_EQ(formatTimestamp(&moment), "[2024-12-31T23:59:59.999]");
}

TEST(TimestampTest, IsNotLocalTime) {
    ASSERT_EQ(setenv("TZ", "UTC-9", 1), 0);
    tzset();
    const timeval moment = momentOf(1714557600, 0);
    EXPECT_EQ(formatTimestamp(&moment), "[2024-05-01T10:00:00.000]");
    unsetenv("TZ");
    tzset();
}

TEST(TimestampTest, IsEmptyWithoutATime) {
    EXPECT_EQ(formatTimestamp(nullptr), "");
}

TEST(PrintfMessageTest, PutsABlankBetweenTimestampAndText) {
    EXPECT_EQ(compose("Log", "[t]", "fd %d", 5), "[t] fd 5");
    EXPECT_EQ(compose("Panic", "[t]", "fd %d", 5), "[t] fd 5");
}

TEST(PrintfMessageTest, PutsABlankBeforeTheTimestampOfAWarning) {
    EXPECT_EQ(compose("Warning", "[t]", "fd %d", 5), " [t] fd 5");
}

TEST(PrintfMessageTest, KeepsTheBlanksWithoutATimestamp) {
    EXPECT_EQ(compose("Log", "", "text"), " text");
    EXPECT_EQ(compose("Warning", "", "text"), "  text");
}

TEST(PrintfMessageTest, TruncatesAMessageTo399Characters) {
    for (const std::size_t length : {398U, 399U, 400U, 401U, 5000U}) {
        const std::string text(length, 'x');
        EXPECT_EQ(compose("Log", "[t]", "%s", text.c_str()),
                  "[t] " + text.substr(0, std::min<std::size_t>(length, 399)))
            << length;
    }
}

TEST(PrintfMessageTest, TruncatesTheNewlineOfALongMessage) {
    const std::string text(399, 'x');
    EXPECT_EQ(compose("Panic", "[t]", "%s\n", text.c_str()), "[t] " + text);
}

TEST(PrintfLogTest, WarningShowsTwoBlanksAndAnEmptyLine) {
    EXPECT_THAT(printedBy([] { Warning("socket %d failed\n", 7); }),
                MatchesRegex("warn  " + timestampPattern + " socket 7 failed\n\n"));
}

TEST(PrintfLogTest, LogIsWrittenAtDebugLevel) {
    EXPECT_EQ(printedBy([] { Log("text"); }), "");
    const AtLogLevel level("debug");
    EXPECT_THAT(printedBy([] { Log("text %s", "here"); }),
                MatchesRegex("debug " + timestampPattern + " text here\n"));
}

TEST(PrintfLogTest, PanicIsWrittenAtErrorLevel) {
    const AtLogLevel level("error");
    EXPECT_THAT(printedBy([] { Panic("text"); }),
                MatchesRegex("error " + timestampPattern + " text\n"));
}

TEST(PrintfLogTest, WarningIsSilentBelowItsLevel) {
    const AtLogLevel level("error");
    EXPECT_EQ(printedBy([] { Warning("text"); }), "");
}

TEST(PrintfLogTest, TruncatesTheMessageAndNotTheTimestamp) {
    const std::string text(450, 'x');
    EXPECT_THAT(printedBy([&] { Panic("%s", text.c_str()); }),
                MatchesRegex("error " + timestampPattern + " " + text.substr(0, 399) + "\n"));
}

class SuppressedFormatTest : public testing::TestWithParam<const char*> {};

TEST_P(SuppressedFormatTest, IsSuppressedWithAnyTextAfterIt) {
    EXPECT_TRUE(isSuppressedWarning(GetParam()));
    EXPECT_TRUE(isSuppressedWarning((std::string(GetParam()) + "more %s\n").c_str()));
}

TEST_P(SuppressedFormatTest, IsNotSuppressedWhenIncomplete) {
    const std::string part = std::string(GetParam()).substr(0, std::string(GetParam()).size() - 1);
    EXPECT_FALSE(isSuppressedWarning(part.c_str()));
    EXPECT_FALSE(isSuppressedWarning((" " + std::string(GetParam())).c_str()));
}

INSTANTIATE_TEST_SUITE_P(Prefixes, SuppressedFormatTest,
                         testing::Values("socket %d state: ", "socket %d network: ",
                                         "socket %d send: ", "socket %d queue: ",
                                         "socket %d recv: ", "socket %d loss: ", "socket %d cc: "));

TEST(SuppressionTest, PrintsNothingForASuppressedFormat) {
    EXPECT_EQ(printedBy([] { Warning("socket %d loss: %d\n", 3, 4); }), "");
}

TEST(SuppressionTest, PrintsAnIncompletePrefix) {
    EXPECT_THAT(printedBy([] { Warning("socket %d los", 3); }),
                MatchesRegex("warn .*socket 3 los\n"));
}

TEST(SuppressionTest, ChecksTheFormatAndNotTheText) {
    EXPECT_THAT(printedBy([] { Warning("%s", "socket %d loss: 4"); }),
                MatchesRegex("warn .*socket %d loss: 4\n"));
}

TEST(SuppressionTest, AppliesToWarningsOnly) {
    const AtLogLevel level("debug");
    EXPECT_THAT(printedBy([] { Log("socket %d loss: ", 3); }), MatchesRegex("debug .*loss: \n"));
    EXPECT_THAT(printedBy([] { Panic("socket %d loss: ", 3); }), MatchesRegex("error .*loss: \n"));
}

}  // namespace
}  // namespace vesk
