// One run against one forwarder, from the first probe to the last reply. Called by main.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "lib/flow_plan.h"
#include "lib/process_usage.h"
#include "lib/udp_socket.h"
#include "traffic/end_request.h"
#include "traffic/options.h"
#include "traffic/pacer.h"
#include "traffic/request_ledger.h"
#include "traffic/traffic_ends.h"

namespace vesk::bench {

struct TrafficResult {
    RequestCounts requests;
    ArrivalCounts arrivals;         // of the measured time
    std::int64_t elapsed = 0;       // all times in nanoseconds
    std::int64_t opening = 0;       // time for the first datagrams of all flows
    std::uint64_t skipped = 0;      // requests that an open loop left out
    std::uint64_t mergedSends = 0;  // messages of several datagrams in the measured time
    LatencyHistogram roundTrips;
    std::optional<ProcessUsage> usage;  // of the measured process, over the measured time
};

class TrafficRun {
 public:
    TrafficRun(const TrafficOptions& options, std::uint16_t forwarderPort, pid_t measuredPid,
               UdpSocket& service, const std::vector<FlowPlan>& plans);

    /// Throws std::runtime_error if the forwarder forwards nothing.
    TrafficResult run();

 private:
    void awaitForwarder();
    void openFlows();
    /// Returns how many requests were sent.
    std::uint64_t carry(Pacer& pacer, double seconds, std::uint64_t requests);
    void carryMeasured(Pacer& pacer);
    bool hasToEnd(std::int64_t now);
    void drain();
    Pacer makePacer() const;
    std::optional<ProcessUsage> measuredUsage() const;

    const TrafficOptions& options_;
    pid_t measuredPid_;
    DatagramPool pool_;
    RequestLedger ledger_;
    TrafficEnds ends_;
    /// None if the run has a forwarder of its own: signals end it at once then.
    std::optional<EndRequest> endRequest_;
};

}  // namespace vesk::bench
