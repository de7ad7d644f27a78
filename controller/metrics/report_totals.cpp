#include "metrics/report_totals.h"

#include <algorithm>

namespace vesk::controller {

namespace {

std::uint64_t difference(std::uint64_t before, std::uint64_t now) {
    return now < before ? now : now - before;
}

void accumulate(DatagramCounters& total, const DatagramCounters& before,
                const DatagramCounters& now) {
    const DatagramCounters increased = increase(before, now);
    for (const auto field : datagramFields) {
        total.*field += increased.*field;
    }
}

// All 0 for a flow without a socket: the counters of its next socket begin at 0.
DatagramCounters countersOf(const Report& report, std::uint32_t label) {
    const auto row =
        std::lower_bound(report.flows.begin(), report.flows.end(), label,
                         [](const FlowRow& it, std::uint32_t wanted) { return it.label < wanted; });
    return row != report.flows.end() && row->label == label ? row->counters : DatagramCounters();
}

bool hasSocket(const Report& report, std::uint32_t label) {
    return std::binary_search(report.flows.begin(), report.flows.end(), FlowRow{label, {}},
                              [](const FlowRow& a, const FlowRow& b) { return a.label < b.label; });
}

}  // namespace

DatagramCounters increase(const DatagramCounters& before, const DatagramCounters& now) {
    // A counter that fell shows that the socket is new.
    const bool anew = std::any_of(datagramFields.begin(), datagramFields.end(),
                                  [&](const auto field) { return now.*field < before.*field; });
    DatagramCounters result = now;
    if (!anew) {
        for (const auto field : datagramFields) {
            result.*field -= before.*field;
        }
    }
    return result;
}

void ReportTotals::add(const Report& report,
                       const std::map<std::uint32_t, std::string>& flowNames) {
    const DatagramCounters none;
    accumulate(totals_.downstream, last_.downstream.value_or(none),
               report.downstream.value_or(none));
    accumulate(totals_.lateral, last_.lateral.value_or(none), report.lateral.value_or(none));
    addPoll(report);
    addWorkers(report);
    addFlows(report);
    if (perFlow_) {
        keepFlows(report, flowNames);
    }
    totals_.flowSockets = report.totals.sockets;
    last_ = report;
}

void ReportTotals::childStarted() {
    last_ = Report();
}

void ReportTotals::addFlowSockets(const std::map<std::uint32_t, FlowSocket>& sockets) {
    if (!perFlow_) {
        return;
    }
    for (auto& [label, flow] : totals_.flows) {
        flow.socket = SocketFigures();
    }
    for (const auto& [label, socket] : sockets) {
        FlowTotals& flow = totals_.flows[label];
        flow.socket = socket.present;
        flow.kernelDrops += socket.newDrops;
    }
}

void ReportTotals::addPoll(const Report& report) {
    const PollCounters before = last_.poll.value_or(PollCounters());
    const PollCounters now = report.poll.value_or(PollCounters());
    totals_.readEvents += difference(before.readEvents, now.readEvents);
    totals_.writeEvents += difference(before.writeEvents, now.writeEvents);
    totals_.errorEvents += difference(before.errorEvents, now.errorEvents);
    totals_.armedSockets = now.armedSockets;
}

void ReportTotals::addWorkers(const Report& report) {
    std::vector<WorkerCounters>& before = last_.workers;
    before.resize(std::max(before.size(), report.workers.size()));
    totals_.workers.resize(std::max(totals_.workers.size(), report.workers.size()));
    for (std::size_t i = 0; i < report.workers.size(); ++i) {
        const WorkerCounters& now = report.workers[i];
        WorkerTotals& total = totals_.workers[i];
        total.wakeUps += difference(before[i].wakeUps, now.wakeUps);
        // This counter has 32 bits and wraps; the difference is still correct.
        total.queuedSockets += now.queuedSockets - before[i].queuedSockets;
        total.received += difference(before[i].received, now.received);
    }
}

void ReportTotals::addFlows(const Report& report) {
    for (const FlowRow& row : report.flows) {
        const DatagramCounters before = countersOf(last_, row.label);
        accumulate(totals_.upstream, before, row.counters);
        if (perFlow_) {
            accumulate(totals_.flows[row.label].counters, before, row.counters);
        }
    }
}

void ReportTotals::keepFlows(const Report& report,
                             const std::map<std::uint32_t, std::string>& flowNames) {
    std::erase_if(totals_.flows, [&](const auto& flow) {
        return !flowNames.contains(flow.first) && !hasSocket(report, flow.first);
    });
    for (auto& [label, flow] : totals_.flows) {
        flow.name.clear();
    }
    for (const auto& [label, name] : flowNames) {
        totals_.flows[label].name = name;
    }
}

}  // namespace vesk::controller
