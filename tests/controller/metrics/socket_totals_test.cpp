#include "kernel/socket_totals.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <vector>

namespace vesk::controller {
namespace {

using testing::ElementsAre;

UdpSocket udpSocket(std::uint64_t inode, std::uint16_t port, std::uint64_t drops) {
    return {"0100007F", port, 1, 10, inode, drops};
}

/// Sockets of the forwarder. Inode 3 is the socket of flow 100.
std::vector<OwnSocket> own(std::initializer_list<std::uint64_t> inodes) {
    std::vector<OwnSocket> sockets;
    for (const std::uint64_t inode : inodes) {
        sockets.push_back({inode, inode == 3 ? 100U : 0U});
    }
    return sockets;
}

const Listeners bothListeners{{"0100007F", 4500}, {"0100007F", 4600}};

TEST(SocketTotalsTest, DistinguishesTheSides) {
    EXPECT_EQ(sideOf(udpSocket(1, 4500, 0), bothListeners), Side::downstream);
    EXPECT_EQ(sideOf(udpSocket(1, 4600, 0), bothListeners), Side::lateral);
    EXPECT_EQ(sideOf(udpSocket(1, 4700, 0), bothListeners), Side::upstream);
    // A flow's source may be the same port of another address.
    EXPECT_EQ(sideOf({"0200007F", 4500, 0, 0, 1, 0}, bothListeners), Side::upstream);
    EXPECT_EQ(sideOf({"00000000", 40000, 0, 0, 1, 0}, Listeners()), Side::upstream);
}

TEST(SocketTotalsTest, AddsUpTheSocketsOfASide) {
    SocketTotals totals;
    totals.add(std::vector{udpSocket(1, 4500, 5), udpSocket(2, 4600, 6), udpSocket(3, 4700, 7),
                           udpSocket(4, 4701, 8), udpSocket(5, 4702, 9)},
               own({1, 2, 3, 4}), bothListeners);
    EXPECT_THAT(totals.present(), ElementsAre(SocketFigures{1, 10, 1}, SocketFigures{1, 10, 1},
                                              SocketFigures{2, 20, 2}));
    EXPECT_THAT(totals.drops(), ElementsAre(5, 6, 15));
}

TEST(SocketTotalsTest, DropsNeverFall) {
    SocketTotals totals;
    totals.add(std::vector{udpSocket(3, 1, 7), udpSocket(4, 2, 8)}, own({3, 4}), bothListeners);
    totals.add(std::vector{udpSocket(3, 1, 9)}, own({3}), bothListeners);
    EXPECT_THAT(totals.drops(), ElementsAre(0, 0, 17));
    EXPECT_EQ(totals.present().at(2), (SocketFigures{1, 10, 1}));
    totals.add({}, {}, bothListeners);
    totals.add(std::vector{udpSocket(5, 1, 3)}, own({5}), bothListeners);
    EXPECT_THAT(totals.drops(), ElementsAre(0, 0, 20));
    // A new socket with the inode of a closed one.
    totals.add(std::vector{udpSocket(5, 1, 1)}, own({5}), bothListeners);
    EXPECT_THAT(totals.drops(), ElementsAre(0, 0, 21));
}

TEST(SocketTotalsTest, DistinguishesKnownFlows) {
    using testing::Pair;
    SocketTotals totals;
    totals.add(std::vector{udpSocket(3, 1, 7), udpSocket(4, 2, 8)}, own({3, 4}), bothListeners);
    EXPECT_THAT(totals.flows(), ElementsAre(Pair(100, FlowSocket{{1, 10, 1}, 7})));
    totals.add(std::vector{udpSocket(3, 1, 9)}, own({3}), bothListeners);
    EXPECT_THAT(totals.flows(), ElementsAre(Pair(100, FlowSocket{{1, 10, 1}, 2})));
    totals.add({}, {}, bothListeners);
    EXPECT_THAT(totals.flows(), testing::IsEmpty());
}

TEST(SocketTotalsTest, CountsASocketThatIsInTheTableTwiceOnce) {
    SocketTotals totals;
    totals.add(std::vector{udpSocket(3, 1, 7), udpSocket(3, 1, 7)}, own({3}), bothListeners);
    EXPECT_THAT(totals.drops(), ElementsAre(0, 0, 7));
    EXPECT_EQ(totals.present().at(2).sockets, 1U);
}

}  // namespace
}  // namespace vesk::controller
