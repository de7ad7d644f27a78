#include "child/pending_lines.h"

#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

TEST(PendingLines, ReturnsBytesInOrder) {
    PendingLines lines;
    EXPECT_TRUE(lines.empty());
    lines.add("one");
    lines.add("two");
    EXPECT_EQ(lines.size(), 8U);
    EXPECT_EQ(lines.front(100), "one\ntwo\n");
    EXPECT_EQ(lines.front(2), "on");
    lines.drop(5);
    EXPECT_EQ(lines.front(100), "wo\n");
    lines.drop(3);
    EXPECT_TRUE(lines.empty());
    EXPECT_EQ(lines.front(100), "");
}

TEST(PendingLines, KeepsOnlyALineThatWasBegun) {
    PendingLines lines;
    lines.add("one");
    lines.add("two");
    lines.add("three");
    lines.drop(6);
    lines.keepLineBegun();
    EXPECT_EQ(lines.front(100), "o\n");
}

TEST(PendingLines, KeepsNothingBetweenLines) {
    for (const std::size_t written : {0U, 4U}) {
        PendingLines lines;
        lines.add("one");
        lines.add("two");
        lines.drop(written);
        lines.keepLineBegun();
        EXPECT_TRUE(lines.empty()) << written;
    }
}

TEST(PendingLines, KeepsAllBytesOfALongBacklog) {
    PendingLines lines;
    std::string expected;
    for (int i = 0; i < 100000; ++i) {
        lines.add(std::to_string(i));
        expected += std::to_string(i) + "\n";
    }
    std::string seen;
    while (!lines.empty()) {
        const std::string piece(lines.front(777));
        seen += piece;
        lines.drop(piece.size());
        if (seen.size() == std::size_t{777} * 400) {
            lines.add("late");
            expected += "late\n";
        }
    }
    EXPECT_EQ(seen, expected);
}

TEST(PendingLines, DetectsTheBeginningOfALineInALongBacklog) {
    PendingLines lines;
    const std::string line(50000, 'x');
    for (int i = 0; i < 4; ++i) {
        lines.add(line);
    }
    lines.drop(3 * (line.size() + 1));
    EXPECT_EQ(lines.size(), 50001U);
    lines.keepLineBegun();
    EXPECT_TRUE(lines.empty());
}

}  // namespace
}  // namespace vesk::controller
