#include "datapath/merged_datagrams.h"

#include <gtest/gtest.h>

namespace vesk {
namespace {

TEST(MergedDatagramsTest, OneMessageIsOneDatagramUnlessItIsMerged) {
    EXPECT_EQ(countDatagrams(0, 0), 0U);
    EXPECT_EQ(countDatagrams(1, 0), 1U);
    EXPECT_EQ(countDatagrams(2048, 0), 1U);
    EXPECT_EQ(datagramExtent(2048, 0, 0).length, 2048U);
    EXPECT_EQ(datagramExtent(2048, 0, 0).offset, 0U);
}

TEST(MergedDatagramsTest, AllButTheLastHaveTheSegmentSize) {
    EXPECT_EQ(countDatagrams(1000, 400), 3U);
    EXPECT_EQ(datagramExtent(1000, 400, 0).length, 400U);
    EXPECT_EQ(datagramExtent(1000, 400, 1).offset, 400U);
    EXPECT_EQ(datagramExtent(1000, 400, 1).length, 400U);
    EXPECT_EQ(datagramExtent(1000, 400, 2).offset, 800U);
    EXPECT_EQ(datagramExtent(1000, 400, 2).length, 200U);
}

TEST(MergedDatagramsTest, TheLastMayHaveTheSegmentSizeToo) {
    EXPECT_EQ(countDatagrams(1200, 400), 3U);
    EXPECT_EQ(datagramExtent(1200, 400, 2).length, 400U);
    EXPECT_EQ(countDatagrams(400, 400), 1U);
}

TEST(MergedDatagramsTest, AMessageShorterThanItsSegmentSizeIsOneDatagram) {
    EXPECT_EQ(countDatagrams(300, 400), 1U);
    EXPECT_EQ(datagramExtent(300, 400, 0).length, 300U);
    EXPECT_EQ(countDatagrams(0, 400), 0U);
}

TEST(MergedDatagramsTest, CutsLongDatagramsAlone) {
    EXPECT_EQ(datagramExtent(5000, 0, 0).length, maxDatagramSize);
    EXPECT_EQ(countDatagrams(5000, 2400), 3U);
    EXPECT_EQ(datagramExtent(5000, 2400, 0).length, maxDatagramSize);
    EXPECT_EQ(datagramExtent(5000, 2400, 1).offset, 2400U);
    EXPECT_EQ(datagramExtent(5000, 2400, 1).length, maxDatagramSize);
    EXPECT_EQ(datagramExtent(5000, 2400, 2).length, 200U);
}

TEST(MergedDatagramsTest, CoverEveryByteOnce) {
    for (std::size_t segment = 1; segment <= 70; ++segment) {
        for (std::size_t length = 1; length <= 200; ++length) {
            std::size_t end = 0;
            for (std::size_t i = 0; i < countDatagrams(length, segment); ++i) {
                const DatagramExtent extent = datagramExtent(length, segment, i);
                ASSERT_EQ(extent.offset, end);
                ASSERT_GT(extent.length, 0U);
                end += extent.length;
            }
            ASSERT_EQ(end, length);
        }
    }
}

}  // namespace
}  // namespace vesk
