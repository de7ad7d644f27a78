#include "child/log_line.h"

#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

TEST(LogLine, HasALevelAndAText) {
    for (const LogLevel level :
         {LogLevel::error, LogLevel::warn, LogLevel::info, LogLevel::debug, LogLevel::trace}) {
        const LogLine line = classify(std::string(nameOf(level)) + " some words");
        EXPECT_EQ(line.level, level);
        EXPECT_EQ(line.text, "some words");
        EXPECT_EQ(levelNamed(nameOf(level)), level);
    }
    EXPECT_EQ(classify("warn  [2024] late").text, " [2024] late");
    EXPECT_EQ(classify("info ").level, LogLevel::info);
    EXPECT_EQ(classify("info ").text, "");
}

TEST(LogLine, MayHaveNoLevel) {
    for (const char* const text : {"", " error", "information", "info", "errors found",
                                   "downstreamPacketReceivedFailed HMAC Check!"}) {
        EXPECT_EQ(classify(text).level, LogLevel::none) << text;
        EXPECT_EQ(classify(text).text, text);
    }
    EXPECT_EQ(levelNamed("loud"), LogLevel::none);
    EXPECT_EQ(levelNamed(""), LogLevel::none);
}

}  // namespace
}  // namespace vesk::controller
