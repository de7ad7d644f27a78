#include "metrics/exposition.h"

#include <array>
#include <string>
#include <utility>

#include "config/label_text.h"
#include "metrics/datagram_metrics.h"
#include "metrics/kernel_exposition.h"

namespace vesk::controller {

namespace {

using prometheus::MetricFamily;
using prometheus::MetricType;

constexpr std::array<SocketMetric, 6> flowMetrics{{
    {&DatagramCounters::received, "vesk_flow_received_datagrams_total",
     "Replies received from the flow's upstream service."},
    {&DatagramCounters::receiveErrors, "vesk_flow_receive_errors_total",
     "Replies refused or under another flow's label, and failed receive calls, of the flow."},
    {&DatagramCounters::sent, "vesk_flow_sent_datagrams_total",
     "Datagrams sent to the flow's upstream service."},
    {&DatagramCounters::dropped, "vesk_flow_dropped_datagrams_total",
     "Datagrams of the flow that could not be signed or sent upstream."},
    {&DatagramCounters::repliesSent, "vesk_flow_sent_replies_total",
     "Replies of the flow sent to the peer or returned to another instance."},
    {&DatagramCounters::repliesDropped, "vesk_flow_dropped_replies_total",
     "Replies of the flow that could not be signed or sent."},
}};

constexpr std::array<FigureMetric<WorkerTotals>, 3> workerMetrics{{
    {&WorkerTotals::wakeUps, "vesk_worker_wakeups_total",
     "Times the worker woke to receive replies."},
    {&WorkerTotals::queuedSockets, "vesk_worker_queued_sockets_total",
     "Sockets found in the worker's queue, added up over all wake-ups."},
    {&WorkerTotals::received, "vesk_worker_received_datagrams_total",
     "Replies received by the worker."},
}};

void addFlows(Families& families, const Totals& totals) {
    std::vector<LabelledFigures<DatagramCounters>> flows;
    flows.reserve(totals.flows.size());
    for (const auto& [label, flow] : totals.flows) {
        flows.push_back({flow.counters, {{"flow", flow.name}, {"label", labelText(label)}}});
    }
    addTable(families, MetricType::Counter, flowMetrics, flows);
}

void addFlowSockets(Families& families, const Totals& totals) {
    if (totals.flows.empty()) {
        return;
    }
    MetricFamily drops{"vesk_flow_udp_dropped_datagrams_total",
                       "Replies that the kernel dropped at the flow's socket, mostly because the "
                       "receive buffer was full. Set net.core.rmem_max to 1048576.",
                       MetricType::Counter,
                       {}};
    MetricFamily queue{"vesk_flow_udp_receive_queue_bytes",
                       "Receive buffer used by waiting replies of the flow, in bytes. Set "
                       "net.core.rmem_max to 1048576.",
                       MetricType::Gauge,
                       {}};
    for (const auto& [label, flow] : totals.flows) {
        const Labels labels{{"flow", flow.name}, {"label", labelText(label)}};
        drops.metric.push_back(counter(flow.kernelDrops, labels));
        queue.metric.push_back(gauge(static_cast<double>(flow.socket.receiveQueue), labels));
    }
    families.push_back(std::move(drops));
    families.push_back(std::move(queue));
}

void addWorkers(Families& families, const Totals& totals) {
    std::vector<LabelledFigures<WorkerTotals>> workers;
    for (std::size_t i = 0; i < totals.workers.size(); ++i) {
        workers.push_back({totals.workers[i], {{"worker", std::to_string(i)}}});
    }
    addTable(families, MetricType::Counter, workerMetrics, workers);
}

/// A counter of an action, with a series for each outcome.
template <std::size_t outcomes>
void addOutcomes(Families& families, const char* name, const char* help,
                 const std::array<const char*, outcomes>& names,
                 const std::array<std::uint64_t, outcomes>& counts) {
    MetricFamily family{name, help, MetricType::Counter, {}};
    for (std::size_t i = 0; i < outcomes; ++i) {
        family.metric.push_back(counter(counts[i], {{"outcome", names[i]}}));
    }
    families.push_back(std::move(family));
}

void addReloads(Families& families, const ControllerState& state) {
    addOutcomes<reloadOutcomes>(
        families, "vesk_reloads_total",
        "Reloads of the configuration, by outcome: done; file_refused, which changed "
        "nothing or left out fragments; address_refused, which kept the old downstream address.",
        {"done", "file_refused", "address_refused"}, state.reloads);
    addGauge(families, "vesk_last_reload_successful",
             "1 unless the last reload's outcome was file_refused or address_refused.",
             state.lastReloadSuccessful ? 1 : 0);
}

void addFragments(Families& families, const ControllerState& state) {
    if (state.fragmentErrors.empty()) {
        return;
    }
    MetricFamily family{"vesk_fragment_errors",
                        "1 while the fragment of the configuration has an error, otherwise 0. Its "
                        "flows are those from before the error; the log has the reason.",
                        MetricType::Gauge,
                        {}};
    for (const auto& [file, hasError] : state.fragmentErrors) {
        family.metric.push_back(gauge(hasError ? 1 : 0, {{"fragment", file}}));
    }
    families.push_back(std::move(family));
}

void addReplacements(Families& families, const ControllerState& state) {
    addOutcomes<replacementOutcomes>(
        families, "vesk_replacements_total",
        "Replacements of the forwarder by a new one, by outcome: done; failed, which kept the old "
        "forwarder of at least one instance.",
        {"done", "failed"}, state.replacements);
}

constexpr std::array<FigureMetric<SteeringCounters>, 4> steeringMetrics{{
    {&SteeringCounters::tooShort, "vesk_steering_short_packets_total",
     "Packets to the public port without a whole label, which instance 0 gets and refuses."},
    {&SteeringCounters::fragments, "vesk_steering_fragmented_packets_total",
     "Datagrams to the public port that arrived in fragments. Lower the MTU of the peers."},
    {&SteeringCounters::unmatched, "vesk_steering_unmatched_packets_total",
     "Packets whose instance was missing in the rules; they take the lateral stream. Restart the "
     "controller."},
    {&SteeringCounters::direct, "vesk_steering_direct_packets_total",
     "Packets that a sender addressed to the port of an instance itself, which are dropped."},
}};

void addSteering(Families& families, const ControllerState& state) {
    if (state.steering) {
        addGauge(families, "vesk_steering_active",
                 "1 while the packet filter sends datagrams to the instances, otherwise 0.",
                 state.steering->active ? 1 : 0);
        addTable(families, MetricType::Counter, steeringMetrics, state.steering->counters);
    }
}

void addPeers(Families& families, const ControllerState& state) {
    if (state.peers.empty()) {
        return;
    }
    MetricFamily family{"vesk_lateral_peer_resolved",
                        "1 while the name of the lateral peer is resolved, otherwise 0.",
                        MetricType::Gauge,
                        {}};
    for (const auto& [index, resolved] : state.peers) {
        family.metric.push_back(gauge(resolved ? 1 : 0, {{"peer", std::to_string(index)}}));
    }
    families.push_back(std::move(family));
}

void addController(Families& families, const ControllerState& state) {
    addGauge(families, "vesk_build_info", "Always 1; the version is in its label.", 1,
             {{"version", VESK_VERSION}});
    addGauge(families, "vesk_up", "1 while the forwarder runs, otherwise 0.",
             state.childUp ? 1 : 0);
    addCounter(families, "vesk_restarts_total",
               "Times the forwarder ended unexpectedly and was started again.", state.restarts);
    addGauge(families, "vesk_flows_declared", "Flows in the configuration.",
             static_cast<double>(state.flowsDeclared));
    addGauge(families, "vesk_flows_active",
             "Flows of the configuration that the running forwarder has accepted.",
             state.childUp || state.partlyUp ? static_cast<double>(state.flowsActive) : 0);
    addGauge(families, "vesk_listening",
             "1 while the forwarder listens for peers at the configured address, otherwise 0.",
             state.childUp && state.listening ? 1 : 0);
    if (state.lateralListening) {
        addGauge(families, "vesk_lateral_listening",
                 "1 while the forwarder listens for other instances, otherwise 0.",
                 state.childUp && *state.lateralListening ? 1 : 0);
    }
    if (state.lastReport) {
        const std::chrono::duration<double> sinceEpoch = state.lastReport->time_since_epoch();
        addGauge(families, "vesk_last_report_timestamp_seconds",
                 "When the forwarder's counters were last read, in seconds since 1970.",
                 sinceEpoch.count());
    }
}

void addPoll(Families& families, const Totals& totals, bool childUp) {
    addGauge(families, "vesk_flow_sockets", "Flows that have a socket, auxiliary ones included.",
             childUp ? static_cast<double>(totals.flowSockets) : 0);
    addGauge(families, "vesk_poll_armed_sockets",
             "Sockets that wait for replies; a hint that may be off by a few.",
             childUp ? totals.armedSockets : 0);
    addCounter(families, "vesk_poll_read_events_total", "Sockets reported as readable.",
               totals.readEvents);
    addCounter(families, "vesk_poll_write_events_total", "Always 0: nothing waits to send.",
               totals.writeEvents);
    addCounter(families, "vesk_poll_error_events_total", "Errors and hang-ups reported on sockets.",
               totals.errorEvents);
}

}  // namespace

std::vector<prometheus::MetricFamily> describeMetrics(const Totals& totals,
                                                      const ControllerState& state) {
    Families families;
    addController(families, state);
    addReloads(families, state);
    addFragments(families, state);
    addRotations(families, state.rotations);
    addReplacements(families, state);
    addPeers(families, state);
    addSteering(families, state);
    addTable(families, MetricType::Counter, downstreamMetrics, totals.downstream);
    addTable(families, MetricType::Counter, upstreamMetrics, totals.upstream);
    addTable(families, MetricType::Counter, lateralMetrics, totals.lateral);
    addFlows(families, totals);
    addWorkers(families, totals);
    addPoll(families, totals, state.childUp || state.partlyUp);
    addKernelFigures(families, state.kernel);
    if (state.kernel.flows) {
        addFlowSockets(families, totals);
    }
    addLogEvents(families, state.events);
    return families;
}

}  // namespace vesk::controller
