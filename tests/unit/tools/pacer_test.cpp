#include "traffic/pacer.h"

#include <gtest/gtest.h>

namespace vesk::bench {
namespace {

constexpr std::int64_t start = 1'000'000'000;
constexpr std::int64_t millisecond = 1'000'000;

/// What is due after this many milliseconds; it is sent at once.
std::size_t sendDue(Pacer& pacer, std::int64_t milliseconds) {
    const std::size_t due = pacer.due(start + milliseconds * millisecond, 0);
    pacer.sent(due);
    return due;
}

TEST(PacerTest, OpenLoopSendsOneRequestAtATime) {
    Pacer pacer = Pacer::openLoop(1000, start);
    EXPECT_EQ(sendDue(pacer, 0), 1);
    EXPECT_EQ(pacer.pause(start), millisecond);
    EXPECT_EQ(sendDue(pacer, 0), 0);
    EXPECT_EQ(sendDue(pacer, 1), 1);
    EXPECT_EQ(sendDue(pacer, 5), 4);
}

TEST(PacerTest, OpenLoopSendsWholeBurstsAtTheSameRate) {
    Pacer pacer = Pacer::openLoop(1600, start, 16);
    EXPECT_EQ(sendDue(pacer, 0), 16);
    EXPECT_EQ(pacer.pause(start + 4 * millisecond), 6 * millisecond);
    EXPECT_EQ(sendDue(pacer, 9), 0);
    EXPECT_EQ(sendDue(pacer, 10), 16);
    EXPECT_EQ(sendDue(pacer, 35), 32);
    EXPECT_EQ(pacer.skipped(), 0);
}

TEST(PacerTest, RestOfABurstThatWasCutIsDueAtOnce) {
    Pacer pacer = Pacer::openLoop(1600, start, 16);
    EXPECT_EQ(pacer.due(start, 0), 16);
    pacer.sent(5);
    EXPECT_EQ(pacer.pause(start + millisecond), 0);
    EXPECT_EQ(sendDue(pacer, 1), 11);
    EXPECT_EQ(sendDue(pacer, 10), 16);
}

TEST(PacerTest, OpenLoopSkipsWholeBurstsBeyondTheLongestBacklog) {
    for (const std::size_t burst : {1U, 16U, 24U, 64U}) {
        Pacer pacer = Pacer::openLoop(1000, start, burst);
        const std::size_t longest = 64 / burst * burst;
        EXPECT_EQ(sendDue(pacer, 2'000), longest) << burst;
        EXPECT_EQ(pacer.skipped(), (2'000 / burst + 1) * burst - longest) << burst;
    }
}

TEST(PacerTest, ClosedLoopFillsTheWindow) {
    Pacer pacer = Pacer::closedLoop(10);
    EXPECT_EQ(pacer.due(start, 0), 10);
    EXPECT_EQ(pacer.due(start, 7), 3);
    EXPECT_EQ(pacer.due(start, 11), 0);
}

TEST(PacerTest, ClosedLoopWaitsUntilABurstFitsIntoTheWindow) {
    Pacer pacer = Pacer::closedLoop(40, 16);
    EXPECT_EQ(pacer.due(start, 0), 32);
    EXPECT_EQ(pacer.due(start, 24), 16);
    EXPECT_EQ(pacer.due(start, 25), 0);
}

}  // namespace
}  // namespace vesk::bench
