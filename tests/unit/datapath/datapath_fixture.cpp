#include "datapath/datapath_fixture.h"

#include <algorithm>
#include <array>
#include <ostream>

#include "datapath/downstream.h"
#include "datapath/wire/layout.h"
#include "support/printed.h"

namespace vesk {

Counts countsOf(const VeskEndpointDescriptor& endpoint) {
    const EndpointCounters& counters = endpoint.counters;
    return {counters.rxDg.value(),        counters.txDg.value(),   counters.rxDgError.value(),
            counters.txDgDropped.value(), counters.dnTxDg.value(), counters.dnTxDgDropped.value()};
}

std::ostream& operator<<(std::ostream& out, const Counts& counts) {
    return out << "{rxDg " << counts.rxDg << ", txDg " << counts.txDg << ", rxDgError "
               << counts.rxDgError << ", txDgDropped " << counts.txDgDropped << ", dnTxDg "
               << counts.dnTxDg << ", dnTxDgDropped " << counts.dnTxDgDropped << "}";
}

EndpointPtr listeningEndpoint(const UdpSocket& socket) {
    const SocketAddress& bound = socket.address();
    return std::make_unique<VeskEndpointDescriptor>(
        0, socket.fd(), socket.fd(), FlowDesc(), [](int, int) {},
        IPAddrInfo(bound.get(), bound.length));
}

void DatapathTest::SetUp() {
    ForwarderTest::SetUp();
    downstream = listeningEndpoint(downstreamSocket);
    lateral = listeningEndpoint(lateralSocket);
    context->downstreamEndpoint.publish(LentEndpoint(downstream));
    localDestination = {withPort(peer.address(), 0), true};
}

void DatapathTest::TearDown() {
    context->downstreamEndpoint.withdraw();
    context->lateralEndpoint.withdraw();
    ForwarderTest::TearDown();
}

void DatapathTest::declareFlow(std::uint32_t label, const std::string& furtherWords) {
    declare("label " + std::to_string(label) + " up_ip 127.0.0.1 up_port " +
            std::to_string(upstream.port()) + " up_label 0x1111 down_label 0x2222 " + furtherWords);
}

std::string DatapathTest::keyWords(const std::string& name, const TestKey& key) {
    return " " + name + "_key " + toHex(key.bytes) + " " + name + "_algo " + key.digest;
}

Bytes DatapathTest::framed(std::uint32_t label, const Bytes& content, const TestKey& key) const {
    return context->framing.version == 1 ? framedV1(label, content, key, Bytes{7, 8})
                                         : framedV2(label, content, key);
}

void DatapathTest::hand(VeskEndpointDescriptor& endpoint, const Bytes& datagram,
                        const SocketAddress& sender, const ReturnPath& returnPath) {
    DownstreamReceiver receiver(*context);
    std::array<std::uint8_t, maxDatagramSize> buffer{};
    std::ranges::copy(datagram, buffer.begin());
    downstreamPacketReceived(
        {endpoint, buffer, datagram.size(), sender, localDestination, returnPath}, receiver);
    receiver.endBatch();
}

std::string DatapathTest::arriveFrom(const UdpSocket& from, const Bytes& datagram) {
    return printedBy([&] { hand(*downstream, datagram, from.address(), {}); });
}

std::string DatapathTest::arriveLaterally(const Bytes& datagram, const ReturnPath& returnPath) {
    return printedBy([&] { hand(*lateral, datagram, peer.address(), returnPath); });
}

EndpointPtr DatapathTest::openFlow(std::uint32_t label) {
    const EndpointPtr before = manager().findEndpointByLabel(label);
    EXPECT_EQ(before, nullptr);
    arrive(framed(label, toBytes("opening")));
    EXPECT_TRUE(upstream.receive().has_value());
    EndpointPtr endpoint = manager().findEndpointByLabel(label);
    EXPECT_NE(endpoint, nullptr);
    takePollRequests();
    return endpoint;
}

ReplyRoute DatapathTest::routeOf(VeskEndpointDescriptor& endpoint) {
    return endpoint.route.load();
}

void DatapathTest::startLateral(std::uint32_t index, std::uint32_t instances) {
    context->lateralEndpoint.publish(LentEndpoint(lateral));
    for (HmacInfo* slot : {&context->lateral.signingKey, &context->lateral.checkingKey}) {
        slot->setKey(lateralKey.bytes);
        slot->setAlgorithm(hmacSha256);
    }
    context->lateral.index = index;
    context->lateral.maxQels = instances;
    context->lateral.running = true;
}

}  // namespace vesk
