// The cost of finding a flow's endpoint for different numbers of flows, with one and two threads.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <map>
#include <memory>

#include "flow/flow_desc.h"
#include "net/endpoint.h"
#include "net/endpoint_manager.h"

namespace vesk::bench {
namespace {

constexpr std::uint32_t firstLabel = 0x10000;
constexpr int firstDescriptor = 100;

// Endpoints without sockets: the tables use only the numbers of descriptors.
std::unique_ptr<EndpointManager> makeManager(int flows) {
    auto manager = std::make_unique<EndpointManager>();
    for (int i = 0; i < flows; ++i) {
        const std::uint32_t label = firstLabel + static_cast<std::uint32_t>(i);
        const int readSocket = firstDescriptor + 2 * i;
        manager->addEndpoint(std::make_shared<VeskEndpointDescriptor>(
            label, readSocket, readSocket + 1, FlowDesc(label), [](int, int) {}));
    }
    return manager;
}

// Made once for each number of flows and shared by all threads of a benchmark.
EndpointManager& managerOf(int flows) {
    static std::map<int, std::unique_ptr<EndpointManager>> managers = [] {
        std::map<int, std::unique_ptr<EndpointManager>> made;
        for (const int size : {1, 100, 2000, 8000}) {
            made.emplace(size, makeManager(size));
        }
        return made;
    }();
    return *managers.at(flows);
}

template <typename Find>
void lookUp(benchmark::State& state, Find find) {
    const int flows = static_cast<int>(state.range(0));
    EndpointManager& manager = managerOf(flows);
    // A stride that is coprime to the sizes visits every flow, and never two adjacent ones in turn.
    constexpr int stride = 37;
    int flow = state.thread_index() % flows;
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(find(manager, flow));
        flow = (flow + stride) % flows;
    }
}

void findByLabel(benchmark::State& state) {
    lookUp(state, [](const EndpointManager& manager, int flow) {
        return manager.findEndpointByLabel(firstLabel + static_cast<std::uint32_t>(flow));
    });
}

void findByDescriptor(benchmark::State& state) {
    lookUp(state, [](const EndpointManager& manager, int flow) {
        return manager.findEndpointByFd(firstDescriptor + 2 * flow);
    });
}

BENCHMARK(findByLabel)->Arg(1)->Arg(100)->Arg(2000)->Arg(8000)->ThreadRange(1, 2);
BENCHMARK(findByDescriptor)->Arg(1)->Arg(100)->Arg(2000)->Arg(8000)->ThreadRange(1, 2);

}  // namespace
}  // namespace vesk::bench
