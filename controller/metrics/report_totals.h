// Adds the child's reports up to counters that never fall. Kept by MetricsServer, which publishes
// the totals.
//
// In the report a counter restarts at 0 with each new socket (after a flow is set, expires or
// fails, or a listener is started again) and with each new child. A flow without a socket is
// missing from the report. Prometheus handles a counter that restarts, but not a sum of which only
// a part restarts: it would treat the smaller sum as a restart and count the rest again. So the
// published value is the sum of all increases seen since the controller started.
//
// The counts of a socket between the last report and its end are lost. The shorter the interval of
// the reports, the fewer these are.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "kernel/kernel_figures.h"
#include "metrics/report.h"

namespace vesk::controller {

/// What one socket has counted more; everything if `now` is of a new socket, which begins at 0.
DatagramCounters increase(const DatagramCounters& before, const DatagramCounters& now);

struct WorkerTotals {
    std::uint64_t wakeUps = 0;
    std::uint64_t queuedSockets = 0;
    std::uint64_t received = 0;
};

struct FlowTotals {
    std::string name;  ///< empty for an auxiliary flow, which is not declared
    DatagramCounters counters;
    SocketFigures socket;           ///< present figures of the kernel
    std::uint64_t kernelDrops = 0;  ///< datagrams that the kernel dropped at its sockets
};

/// The counts so far, and the present values of the last report.
struct Totals {
    DatagramCounters downstream;
    DatagramCounters lateral;
    DatagramCounters upstream;  ///< of all flows, including former ones
    std::uint64_t readEvents = 0;
    std::uint64_t writeEvents = 0;
    std::uint64_t errorEvents = 0;
    std::vector<WorkerTotals> workers;
    std::map<std::uint32_t, FlowTotals> flows;  ///< by label; empty unless `perFlow`
    std::int32_t armedSockets = 0;
    std::uint64_t flowSockets = 0;
};

class ReportTotals {
 public:
    /// `perFlow`: also keep each flow's counters.
    explicit ReportTotals(bool perFlow) : perFlow_(perFlow) {}

    /// Adds the increases since the previous report. The flows must be in order of label, as the
    /// child writes them. `flowNames` are the declared flows by label: these are always kept,
    /// others only while they have a socket, so that memory is bounded.
    void add(const Report& report, const std::map<std::uint32_t, std::string>& flowNames);

    /// The next report will be that of a new child, whose counters begin at 0.
    void childStarted();

    /// Takes the kernel's figures for the flows' sockets, if `perFlow`.
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
