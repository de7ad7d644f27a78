// The cost of building the message of a send call.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>

#include "datapath/outgoing_message.h"
#include "flow/flow_desc.h"
#include "flow/ip_addr_info.h"
#include "net/local_address.h"

namespace vesk::bench {
namespace {

void buildOutgoing(benchmark::State& state, const char* address, std::int32_t dscp) {
    const IPAddrInfo peer(address, 4500);
    const LocalAddress local{IPAddrInfo(address, 9000).socketAddress(), true};
    std::array<std::uint8_t, 532> datagram{};
    for ([[maybe_unused]] auto _ : state) {
        OutgoingMessage message;
        message.setDatagram(datagram);
        message.setDestination(peer.socketAddress());
        message.addTrafficClass(dscp, dscp);
        message.addSource(local, Ipv4Source::kernel);
        benchmark::DoNotOptimize(message.header());
        benchmark::ClobberMemory();
    }
}

BENCHMARK_CAPTURE(buildOutgoing, ipv4, "127.0.0.1", noDscp);
BENCHMARK_CAPTURE(buildOutgoing, ipv4_marked, "127.0.0.1", 46);
BENCHMARK_CAPTURE(buildOutgoing, ipv6, "::1", noDscp);

}  // namespace
}  // namespace vesk::bench
