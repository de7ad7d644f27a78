#include "metrics/instance_exposition.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "metrics/datagram_metrics.h"

namespace vesk::controller {

namespace {

using prometheus::MetricFamily;
using prometheus::MetricType;
using Instances = std::vector<InstanceFigures>;

Labels labelOf(std::size_t instance) {
    return {{"instance", std::to_string(instance)}};
}

/// "vesk_instance_up" for "vesk_up".
std::string nameFor(std::string_view sum) {
    constexpr std::string_view beginning = "vesk_";
    return "vesk_instance_" + std::string(sum.substr(beginning.size()));
}

/// A family with a series for each instance; `valueOf` takes an InstanceFigures.
template <class ValueOf>
void addFamily(Families& families, MetricType type, const char* sum, const std::string& help,
               const Instances& instances, const ValueOf& valueOf) {
    MetricFamily family{nameFor(sum), help, type, {}};
    family.metric.reserve(instances.size());
    for (std::size_t i = 0; i < instances.size(); ++i) {
        family.metric.push_back(
            seriesOf(type, static_cast<std::uint64_t>(valueOf(instances[i])), labelOf(i)));
    }
    families.push_back(std::move(family));
}

template <class Table>
void addCounters(Families& families, const Table& metrics, DatagramCounters Totals::*side,
                 const Instances& instances) {
    for (const SocketMetric& metric : metrics) {
        addFamily(families, MetricType::Counter, metric.name,
                  "By instance: " + std::string(metric.help), instances,
                  [&](const InstanceFigures& it) { return it.totals.*side.*metric.value; });
    }
}

void addStates(Families& families, const Instances& instances) {
    addFamily(families, MetricType::Gauge, "vesk_up",
              "1 while the instance's forwarder runs, otherwise 0.", instances,
              [](const InstanceFigures& it) { return it.state.childUp; });
    addFamily(families, MetricType::Gauge, "vesk_listening",
              "1 while the instance listens on its port, otherwise 0.", instances,
              [](const InstanceFigures& it) { return it.state.childUp && it.state.listening; });
    addFamily(families, MetricType::Counter, "vesk_restarts_total",
              "Times the instance's forwarder ended unexpectedly and was started again.", instances,
              [](const InstanceFigures& it) { return it.state.restarts; });
    addFamily(families, MetricType::Gauge, "vesk_flows_active",
              "Flows of the configuration that the instance has accepted.", instances,
              [](const InstanceFigures& it) {
                  return it.state.childUp ? it.state.flowsActive : std::uint64_t{0};
              });
    addFamily(families, MetricType::Gauge, "vesk_flow_sockets",
              "Flows of the instance that have a socket, auxiliary ones included.", instances,
              [](const InstanceFigures& it) { return it.totals.flowSockets; });
}

void addDrops(Families& families, const Instances& instances) {
    MetricFamily drops{nameFor("vesk_udp_dropped_datagrams_total"),
                       "Datagrams that the kernel dropped at sockets of the instance, mostly "
                       "because the receive buffer was full, by side. Set net.core.rmem_max to "
                       "1048576; then double forwarder.instances.",
                       MetricType::Counter,
                       {}};
    for (std::size_t i = 0; i < instances.size(); ++i) {
        for (std::size_t side = 0; side < sides; ++side) {
            Labels labels = labelOf(i);
            labels.push_back({"side", sideNames.at(side)});
            drops.metric.push_back(
                counter(instances[i].state.kernel.drops.at(side), std::move(labels)));
        }
    }
    families.push_back(std::move(drops));
}

}  // namespace

void addInstances(Families& families, const std::vector<InstanceFigures>& instances) {
    addStates(families, instances);
    addCounters(families, downstreamMetrics, &Totals::downstream, instances);
    addCounters(families, upstreamMetrics, &Totals::upstream, instances);
    addCounters(families, lateralMetrics, &Totals::lateral, instances);
    addDrops(families, instances);
}

}  // namespace vesk::controller
