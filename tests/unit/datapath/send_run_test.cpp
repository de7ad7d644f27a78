#include "datapath/send_run.h"

#include <gtest/gtest.h>

#include <vector>

namespace vesk {
namespace {

HeldDatagram held(std::size_t length, std::uint8_t route = 0) {
    return {nullptr, {nullptr, length}, route, 0};
}

std::size_t countOfFirstRun(const std::vector<HeldDatagram>& datagrams,
                            std::size_t segmentLimit = 2048) {
    return longestRun(datagrams, 0, segmentLimit).count;
}

TEST(SendRunTest, ContainsDatagramsOfOneLength) {
    const std::vector<HeldDatagram> datagrams{held(7), held(7), held(7), held(8)};
    const SendRun run = longestRun(datagrams, 0, 2048);
    EXPECT_EQ(run.first, 0U);
    EXPECT_EQ(run.count, 3U);
    EXPECT_EQ(run.bytes, 21U);
    EXPECT_EQ(longestRun(datagrams, 2, 2048).count, 1U);
    EXPECT_EQ(longestRun(datagrams, 3, 2048).bytes, 8U);
}

TEST(SendRunTest, EndsWithAShorterDatagram) {
    EXPECT_EQ(countOfFirstRun({held(7), held(7), held(3), held(3)}), 3U);
    EXPECT_EQ(countOfFirstRun({held(7), held(6), held(7)}), 2U);
}

TEST(SendRunTest, EndsWhereTheRouteChanges) {
    EXPECT_EQ(countOfFirstRun({held(7, 1), held(7, 1), held(7, 2), held(7, 1)}), 2U);
}

TEST(SendRunTest, HasAtMost64Datagrams) {
    EXPECT_EQ(countOfFirstRun(std::vector(64, held(7))), 64U);
    EXPECT_EQ(countOfFirstRun(std::vector(65, held(7))), 64U);
}

TEST(SendRunTest, HasAtMost65000Bytes) {
    EXPECT_EQ(countOfFirstRun(std::vector(64, held(2000))), 32U);
    EXPECT_EQ(longestRun(std::vector(64, held(1300)), 0, 2048).bytes, 65000U);
    EXPECT_EQ(countOfFirstRun(std::vector(64, held(1301))), 49U);
}

TEST(SendRunTest, LeavesDatagramsOverTheLimitAlone) {
    EXPECT_EQ(countOfFirstRun({held(8), held(8)}, 7), 1U);
    EXPECT_EQ(countOfFirstRun({held(7), held(7)}, 7), 2U);
    EXPECT_EQ(countOfFirstRun({held(1), held(1)}, 0), 1U);
}

}  // namespace
}  // namespace vesk
