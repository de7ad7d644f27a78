// One flow that a peer has opened. The test acts as the receive worker.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "datapath/datapath_fixture.h"
#include "datapath/upstream.h"
#include "support/printed.h"

namespace vesk {

class UpstreamTest : public DatapathTest {
 protected:
    explicit UpstreamTest(int framingVersion = 2, Ipv4Source ipv4Source = Ipv4Source::kernel)
        : DatapathTest(framingVersion, ipv4Source) {}

    void SetUp() override {
        DatapathTest::SetUp();
        receiver = std::make_unique<UpstreamReceiver>(context);
        open(keyWords("up_in", inKey) + keyWords("down_out", outKey));
    }
    void TearDown() override {
        receiver.reset();
        flow.reset();
        DatapathTest::TearDown();
    }

    /// Opens the flow again, with these attributes in addition to its addresses and labels.
    void open(const std::string& words) {
        flow.reset();
        printedBy([this] { manager().removeLabel(label); });
        declareFlow(label, words);
        flow = openFlow(label);
        ASSERT_NE(flow, nullptr);
    }

    void reply(const Bytes& datagram) { upstream.send(datagram, flowAddress(*flow)); }
    static SocketAddress flowAddress(const VeskEndpointDescriptor& endpoint) {
        return withPort(IPAddrInfo("127.0.0.1", 1).socketAddress(),
                        portOf(boundAddress(endpoint.rdsockfd)));
    }

    struct Served {
        int result = -1;
        bool keep = false;
        std::string printed;
    };
    Served serve(int socket) {
        Served served;
        served.keep = true;
        served.printed =
            printedBy([&] { served.result = upstreamSocketRecv(socket, served.keep, *receiver); });
        return served;
    }
    /// Makes a pass over the flow's socket, on which this number of datagrams waits. Expects no
    /// output.
    void makePass(int datagrams = 1) {
        serveFlow(datagrams);
        EXPECT_EQ(printedBy([this] { endPass(); }), "");
    }
    /// Serves the flow's socket until it is drained, which one receive call does. Expects this
    /// number of datagrams and no output.
    void serveFlow(int datagrams) {
        const Served served = serve(flow->rdsockfd);
        EXPECT_FALSE(served.keep);
        EXPECT_EQ(served.result, datagrams);
        EXPECT_EQ(served.printed, "");
    }
    /// Ends the worker's pass. Expects that there is nothing to retry.
    void endPass() { endPassOf(*receiver); }
    static void endPassOf(UpstreamReceiver& worker) {
        EXPECT_EQ(worker.endPass(LogDelay()), std::nullopt);
    }

    static constexpr std::uint32_t label = 0x5a;
    const TestKey inKey{"sha256", {1, 2, 3}};
    const TestKey outKey{"sha1", {4, 5}};
    const Bytes replyPayload = toBytes("reply");

    std::unique_ptr<UpstreamReceiver> receiver;
    EndpointPtr flow;
};

}  // namespace vesk
