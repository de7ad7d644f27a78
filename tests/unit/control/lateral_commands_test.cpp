#include "control/lateral_commands.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "control/lateral_fixture.h"

namespace vesk {
namespace {

const std::string peerRefusal = "error addLateralPeer: bad command, ";

TEST_F(LateralCommandsTest, AddsAPeer) {
    const Outcome outcome = addPeer("idx 0x2 addr 127.0.0.9");
    EXPECT_TRUE(outcome.succeeded);
    EXPECT_EQ(outcome.printed, "info Added lateral stream peer: idx 2 addr 127.0.0.9\n");
    EXPECT_EQ(peerHost(2), "127.0.0.9");
}

TEST_F(LateralCommandsTest, ReplacesThePeerOfAnIndex) {
    addPeer("idx 2 addr 127.0.0.8");
    addPeer("idx 2 addr ::1");
    EXPECT_EQ(peerHost(2), "::1");
}

TEST_F(LateralCommandsTest, RefusesAPeerWithoutIndexOrAddress) {
    expectRefused(addLateralPeer, "", peerRefusal + "missing or empty 'idx' attr\n");
    expectRefused(addLateralPeer, "addr 127.0.0.1", peerRefusal + "missing or empty 'idx' attr\n");
    expectRefused(addLateralPeer, "idx 2", peerRefusal + "missing or empty 'addr' attr\n");
    expectRefused(addLateralPeer, "idx 2 addr", peerRefusal + "missing or empty 'addr' attr\n");
    EXPECT_TRUE(context->lateral.peers.empty());
}

TEST_F(LateralCommandsTest, RefusesABadIndexBeforeTheAddress) {
    for (const std::string text : {"two", "4294967296", "-1"}) {
        expectRefused(addLateralPeer, "idx " + text,
                      peerRefusal + "Bad lateral index value" + text + "\n");
    }
    EXPECT_TRUE(addPeer("idx 4294967295 addr 127.0.0.1").succeeded);
}

TEST_F(LateralCommandsTest, PropagatesAResolverFailureForAPeer) {
    EXPECT_THROW(addPeer("idx 2 addr fe80::1::2"), std::runtime_error);
    EXPECT_TRUE(context->lateral.peers.empty());
}

}  // namespace
}  // namespace vesk
