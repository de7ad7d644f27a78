#include "log/log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "support/descriptors.h"
#include "support/printed.h"

namespace vesk {
namespace {

void logAtEveryLevel() {
    logError("e");
    logWarn("w");
    logInfo("i");
    logDebug("d");
    logMessage(LogLevel::trace, "t");
}

TEST(LogTest, ShowsErrorWarnAndInfoByDefault) {
    EXPECT_EQ(printedBy(logAtEveryLevel), "error e\nwarn w\ninfo i\n");
}

struct LevelCase {
    const char* name;
    LogLevel level;
    const char* printed;
};

class LogLevelTest : public testing::TestWithParam<LevelCase> {};

TEST_P(LogLevelTest, ShowsItsOwnAndAllMoreSevereLevels) {
    const AtLogLevel level(GetParam().name);
    EXPECT_EQ(printedBy(logAtEveryLevel), GetParam().printed);
}

TEST_P(LogLevelTest, IsPrintedByItsName) {
    EXPECT_EQ(logLevelName(GetParam().level), GetParam().name);
}

INSTANTIATE_TEST_SUITE_P(
    AllLevels, LogLevelTest,
    testing::Values(LevelCase{"error", LogLevel::error, "error e\n"},
                    LevelCase{"warn", LogLevel::warn, "error e\nwarn w\n"},
                    LevelCase{"info", LogLevel::info, "error e\nwarn w\ninfo i\n"},
                    LevelCase{"debug", LogLevel::debug, "error e\nwarn w\ninfo i\ndebug d\n"},
                    LevelCase{"trace", LogLevel::trace,
                              "error e\nwarn w\ninfo i\ndebug d\ntrace t\n"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(LogTest, NumbersTheLevelsFromOneToFive) {
    const std::array<LogLevel, 5> levels{LogLevel::error, LogLevel::warn, LogLevel::info,
                                         LogLevel::debug, LogLevel::trace};
    for (int number = 1; number <= 5; ++number) {
        EXPECT_EQ(static_cast<int>(levels.at(static_cast<std::size_t>(number) - 1)), number);
    }
}

class UnknownLevelTest : public testing::TestWithParam<const char*> {};

TEST_P(UnknownLevelTest, IsRefusedAndChangesNothing) {
    const AtLogLevel level("warn");
    EXPECT_FALSE(setLogLevelByName(GetParam()));
    EXPECT_TRUE(logEnabled(LogLevel::warn));
    EXPECT_FALSE(logEnabled(LogLevel::info));
}

INSTANTIATE_TEST_SUITE_P(Texts, UnknownLevelTest,
                         testing::Values("", "DEBUG", "Debug", "debug ", " debug", "debu", "debugs",
                                         "verbose", "none", "0", "3", "warning"));

TEST(LogTest, ComposesAMessageFromItsParts) {
    EXPECT_EQ(printedBy([] { logInfo("label ", 5U, '/', std::string("x"), ' ', std::hex, 255); }),
              "info label 5/x ff\n");
}

/// Records whether it was printed.
struct Tattler {
    bool& printed;
    friend std::ostream& operator<<(std::ostream& out, const Tattler& tattler) {
        tattler.printed = true;
        return out;
    }
};

TEST(LogTest, ComposesNoMessageForADisabledLevel) {
    bool composed = false;
    logDebug(Tattler{composed});
    EXPECT_FALSE(composed);
}

TEST(LogTest, WritesALineAtEveryLevel) {
    const AtLogLevel level("error");
    EXPECT_EQ(printedBy([] { emitLine("trace", "text"); }), "trace text\n");
}

TEST(LogTest, WritesTheContentOfAStream) {
    EXPECT_EQ(printedBy([] {
                  std::ostringstream message;
                  message << "a" << 1;
                  emitLine("info", message);
              }),
              "info a1\n");
}

TEST(LogTest, KeepsTheNewlineOfAMessage) {
    EXPECT_EQ(printedBy([] { emitLine("info", "text\n"); }), "info text\n\n");
}

TEST(LogTest, WritesAnEmptyMessageAsItsLevelAndABlank) {
    EXPECT_EQ(printedBy([] { emitLine("info", ""); }), "info \n");
}

TEST(LogTest, WritesEveryByteOfAMessage) {
    const std::string message("a\0b\xff", 4);
    EXPECT_EQ(printedBy([&] { emitLine("info", message); }), "info " + message + "\n");
}

TEST(LogTest, WritesPlainTextUnchanged) {
    EXPECT_EQ(printedBy([] { writeToStandardOutput("plain"); }), "plain");
    EXPECT_EQ(printedBy([] { writeToStandardOutput(""); }), "");
}

TEST(LogTest, FlushesEveryLine) {
    // The child ends without a flush, so the line that arrives was flushed before.
    const ChildResult child = runInChild([]() -> int {
        logInfo("flushed");
        _exit(0);
    });
    EXPECT_EQ(child.printed, "info flushed\n");
}

TEST(LogTest, IgnoresAFailedWrite) {
    const ChildResult child = runInChild([] {
        const UniqueFd full(open("/dev/full", O_WRONLY));
        dup2(full.get(), STDOUT_FILENO);
        logError("lost");
        logError("lost too");
        return 7;
    });
    EXPECT_EQ(child.exitCode, 7);
}

TEST(LogTest, NeverMixesLinesOfSeveralThreads) {
    constexpr int lineCount = 200;
    const std::vector<std::string> texts{std::string(10, 'a'), std::string(100, 'b'),
                                         std::string(1000, 'c')};
    const std::string printed = printedBy([&] {
        std::vector<std::thread> threads;
        threads.reserve(texts.size());
        for (const std::string& text : texts) {
            threads.emplace_back([&text] {
                for (int i = 0; i < lineCount; ++i) {
                    logInfo(text);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    });
    std::istringstream lines(printed);
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        EXPECT_THAT(texts, testing::Contains(line.substr(std::string("info ").size())));
    }
    EXPECT_EQ(count, lineCount * static_cast<int>(texts.size()));
}

TEST(LogDelayTest, WritesTheLinesOfItsThreadInOrderAtItsEnd) {
    EXPECT_EQ(printedBy([] {
                  {
                      const LogDelay delay;
                      EXPECT_FALSE(delay.holdsLines());
                      logError("first");
                      writeToStandardOutput("as it is\n");
                      EXPECT_TRUE(delay.holdsLines());
                      std::thread([] { logError("other thread"); }).join();
                  }
                  logError("last");
              }),
              "error other thread\nerror first\nas it is\nerror last\n");
}

TEST(LogDelayTest, HoldsLinesUntilTheOuterOfTwoEnds) {
    EXPECT_EQ(printedBy([] {
                  const LogDelay outer;
                  {
                      const LogDelay inner;
                      logError("inner");
                  }
                  EXPECT_TRUE(outer.holdsLines());
                  logError("outer");
              }),
              "error inner\nerror outer\n");
}

TEST(LogDelayTest, HoldsNoLineOfADisabledLevel) {
    EXPECT_EQ(printedBy([] {
                  const LogDelay delay;
                  logDebug("off");
                  EXPECT_FALSE(delay.holdsLines());
              }),
              "");
}

}  // namespace
}  // namespace vesk
