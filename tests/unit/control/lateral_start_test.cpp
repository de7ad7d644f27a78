// The start of the lateral stream.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <atomic>
#include <string>
#include <thread>

#include "control/lateral_fixture.h"
#include "support/framed.h"
#include "support/udp_socket.h"

namespace vesk {
namespace {

using testing::EndsWith;

const std::string startRefusal = "error startLateralStream: bad command, ";

TEST_F(LateralCommandsTest, RefusesToStartWithoutPeers) {
    expectRefused(startLateralStream, "bogus", startRefusal + "no peers configured\n");
    expectRefused(startLateralStream, "addr 127.0.0.1 port 1 idx 0 max_qels 1",
                  startRefusal + "no peers configured\n");
}

class LateralStartTest : public LateralCommandsTest {
 protected:
    void SetUp() override {
        LateralCommandsTest::SetUp();
        addPeer("idx 2 addr 127.0.0.1");
    }

    void expectStartRefused(const std::string& words, const std::string& reason) {
        expectRefused(startLateralStream, words, startRefusal + reason + "\n");
        EXPECT_FALSE(context->lateral.running);
        EXPECT_FALSE(context->lateral.checkingKey.hasKey());
    }

    HmacInfo signingKey() const {
        const MutexLock lock(context->lateral.signingLock);
        return context->lateral.signingKey;
    }
};

TEST_F(LateralStartTest, ChecksItsAttributesInOrder) {
    expectStartRefused("", "missing or empty 'addr' attr");
    expectStartRefused("port x idx y max_qels z", "missing or empty 'addr' attr");
    expectStartRefused("addr fe80::1::2 idx y max_qels z", "missing or empty 'port' attr");
    expectStartRefused("addr fe80::1::2 port x idx y", " Bad lateral port valuex");
    expectStartRefused("addr fe80::1::2 port 53 idx y", "Invalid lateral address and/or port ");
    expectStartRefused("addr 127.0.0.1 port 53 max_qels z", "missing or empty 'idx' attr");
    expectStartRefused("addr 127.0.0.1 port 53 idx y max_qels z", "Bad lateral index valuey");
    expectStartRefused("addr 127.0.0.1 port 53 idx 0", "missing or empty 'max_qels' attr");
    expectStartRefused("addr 127.0.0.1 port 53 idx 0 max_qels z", "Bad lateral Max Qels valuez");
}

TEST_F(LateralStartTest, RefusesNumbersAboveThirtyTwoBits) {
    expectStartRefused("addr 127.0.0.1 port 53 idx 4294967296 max_qels 1",
                       "Bad lateral index value4294967296");
    expectStartRefused("addr 127.0.0.1 port 53 idx 0 max_qels 4294967296",
                       "Bad lateral Max Qels value4294967296");
}

TEST_F(LateralStartTest, ListensAndKeepsItsSettings) {
    const std::uint16_t port = freePort();
    const Outcome outcome = startOn(port);
    EXPECT_TRUE(outcome.succeeded);
    const std::string text = std::to_string(port);
    EXPECT_THAT(
        outcome.printed,
        testing::StartsWith("info Making lateral stream endpoint with address 127.0.0.1 port " +
                            text + "\n"));
    EXPECT_THAT(outcome.printed, EndsWith("info Created lateral stream receive thread: " +
                                          logged(context->lateral.thread.id()) +
                                          "\ninfo Vesk Lateral listener started on port " + text +
                                          " address 127.0.0.1 index 1 maxQels 3\n"));
    EXPECT_TRUE(context->lateral.running);
    EXPECT_EQ(context->lateral.port, port);
    EXPECT_EQ(context->lateral.index, 1U);
    EXPECT_EQ(context->lateral.maxQels, 3U);
    const EndpointPtr endpoint = context->lateralEndpoint.load();
    ASSERT_NE(endpoint, nullptr);
    expectReceives(*endpoint);
}

TEST_F(LateralStartTest, AcceptsZeroInstances) {
    EXPECT_TRUE(
        startLateral("addr 127.0.0.1 port " + std::to_string(freePort()) + " idx 0 max_qels 0")
            .succeeded);
}

TEST_F(LateralStartTest, DrawsANewKeyForSigningAndChecking) {
    LateralStream& lateral = context->lateral;
    EXPECT_EQ(signingKey().algoName, "sha1");
    EXPECT_EQ(lateral.checkingKey.digest, &EVP_sha1);
    startOn(freePort());
    for (const HmacInfo& key : {signingKey(), lateral.checkingKey}) {
        EXPECT_EQ(key.keyLen, 16U);
        EXPECT_EQ(key.algoName, "sha256");
        EXPECT_EQ(key.digest, &EVP_sha256);
    }
    const HmacInfo first = signingKey();
    EXPECT_EQ(first.key, lateral.checkingKey.key);
    // Another start draws another key.
    lateral.thread.stop();
    lateral.running = false;
    startOn(freePort());
    EXPECT_NE(signingKey().key, first.key);
}

TEST_F(LateralStartTest, StartsOnce) {
    startOn(freePort());
    const EndpointPtr endpoint = context->lateralEndpoint.load();
    expectRefused(startLateralStream, "bogus", startRefusal + "already started\n");
    EXPECT_EQ(context->lateralEndpoint.load(), endpoint);
}

TEST_F(LateralStartTest, ReportsAPortInUseAndCanBeStartedAgain) {
    const UdpSocket occupied;
    const Outcome outcome = startOn(occupied.port());
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_THAT(outcome.printed,
                EndsWith("error Failed bind syscall for endpoint socket: Address already in use\n"
                         "error Vesk Lateral listener failed to start, err: -1\n"));
    EXPECT_FALSE(context->lateral.running);
    EXPECT_TRUE(startOn(freePort()).succeeded);
}

TEST_F(LateralStartTest, ReportsThatItsThreadCannotBeCreatedAndCanBeStartedAgain) {
    const std::uint16_t port = freePort();
    const Outcome outcome = withoutThreads([&] { return startOn(port); });
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_THAT(outcome.printed,
                EndsWith("error Failed to create lateral stream receive thread: Resource "
                         "temporarily unavailable\n"
                         "error Vesk Lateral listener failed to start, err: -11\n"));
    EXPECT_FALSE(context->lateral.running);
    EXPECT_TRUE(startOn(port).succeeded);
}

TEST_F(LateralStartTest, ReportsThatNoKeyCanBeDrawn) {
    RAND_METHOD exhausted{};
    exhausted.bytes = [](unsigned char*, int) { return 0; };
    ASSERT_EQ(RAND_set_rand_method(&exhausted), 1);
    expectRefused(startLateralStream,
                  "addr 127.0.0.1 port " + std::to_string(freePort()) + " idx 0 max_qels 1",
                  "error Failed to generate lateral stream HMAC key\n");
    RAND_set_rand_method(nullptr);
    EXPECT_EQ(context->lateralEndpoint.load(), nullptr);
    EXPECT_FALSE(context->lateral.checkingKey.hasKey());
}

TEST_F(LateralStartTest, HandlesNoDatagramBeforeItsSettingsArePublished) {
    LateralStream& lateral = context->lateral;
    // Made before the sender starts: no thread may open descriptors while a listening endpoint is
    // being closed.
    UdpSocket socket;
    for (int round = 0; round < 50; ++round) {
        const std::uint16_t port = freePort();
        const SocketAddress address = IPAddrInfo("127.0.0.1", port).socketAddress();
        std::atomic<bool> handled{false};
        bool wasRunning = false;
        std::thread sender([&] {
            while (!handled) {
                socket.send(Bytes(1), address);
                const EndpointPtr endpoint = context->lateralEndpoint.load();
                if (endpoint && endpoint->counters.rxDg.value() != 0) {
                    wasRunning = lateral.running;
                    handled = true;
                }
            }
        });
        const bool started = startOn(port).succeeded;
        if (!started) {
            handled = true;
        }
        sender.join();
        ASSERT_TRUE(started);
        EXPECT_TRUE(wasRunning) << round;
        lateral.thread.stop();
        lateral.running = false;
        context->lateralEndpoint.withdraw();
    }
}

TEST_F(LateralStartTest, AcceptsPeersAfterTheStart) {
    startOn(freePort());
    EXPECT_TRUE(addPeer("idx 0 addr 127.0.0.7").succeeded);
    EXPECT_EQ(peerHost(0), "127.0.0.7");
}

}  // namespace
}  // namespace vesk
