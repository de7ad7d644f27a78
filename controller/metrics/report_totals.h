// Adds the child's reports up to counters that never fall. MetricsServer keeps one and shows it.
//
// In the report a counter begins at 0 again with each new socket (a flow that is set, expires or
// fails; a listener that is started anew) and with each new child, and a flow without a socket is
// missing from it. Prometheus makes up for a counter that restarts, but not for a sum of which only
// a part does: it would take the smaller sum for a restart of all and count the rest a second time.
// So what is published is the sum of all increases seen since the controller started.
//
// What no report shows cannot be added: what a socket counted between the last report and its end.
// The shorter the interval of the reports, the less that is.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "kernel/kernel_figures.h"
#include "metrics/report.h"

namespace vesk::controller {

struct WorkerTotals {
    std::uint64_t wakeUps = 0;
    std::uint64_t queuedSockets = 0;
    std::uint64_t received = 0;
};

struct FlowTotals {
    std::string name;  ///< empty for a flow that nobody declared: an auxiliary one
    DatagramCounters counters;
    SocketFigures socket;           ///< at present, as the kernel has it
    std::uint64_t kernelDrops = 0;  ///< datagrams that the kernel dropped at its sockets
};

/// What has been counted so far, and what the last report says of the present.
struct Totals {
    DatagramCounters downstream;
    DatagramCounters lateral;
    DatagramCounters upstream;  ///< of all flows, those that are gone included
    std::uint64_t readEvents = 0;
    std::uint64_t writeEvents = 0;
    std::uint64_t errorEvents = 0;
    std::vector<WorkerTotals> workers;
    std::map<std::uint32_t, FlowTotals> flows;  ///< by label; empty unless flows are kept apart
    std::int32_t armedSockets = 0;
    std::uint64_t flowSockets = 0;
};

class ReportTotals {
 public:
    /// `perFlow`: keep each flow's counters, too.
    explicit ReportTotals(bool perFlow) : perFlow_(perFlow) {}

    /// Adds what has increased since the report before; its flows have to be in order of label, as
    /// the child writes them. `flowNames` are the declared flows by label: they are kept whether or
    /// not they have a socket, others only while they have one, so that the memory has a bound.
    void add(const Report& report, const std::map<std::uint32_t, std::string>& flowNames);

    /// The next report is that of a new child, whose counters begin at 0.
    void childStarted();

    /// Takes in what the kernel says of the flows' sockets, if flows are kept apart.
    void addFlowSockets(const std::map<std::uint32_t, FlowSocket>& sockets);

    const Totals& totals() const { return totals_; }

 private:
    void addPoll(const Report& report);
    void addWorkers(const Report& report);
    void addFlows(const Report& report);
    void keepFlows(const Report& report, const std::map<std::uint32_t, std::string>& flowNames);

    bool perFlow_;
    Report last_;
    Totals totals_;
};

}  // namespace vesk::controller
