// The metrics by name: turns the totals into what the metrics page shows. MetricsServer calls it
// for each scrape. docs/metrics.md has the same list for the reader; a test compares the two.
#pragma once

#include <prometheus/metric_family.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "metrics/report_totals.h"

namespace vesk::controller {

/// What the controller knows by itself, without a report.
struct ControllerState {
    bool childUp = false;
    std::uint64_t restarts = 0;
    std::uint64_t flowsDeclared = 0;
    std::uint64_t flowsActive = 0;
    std::optional<std::chrono::system_clock::time_point> lastReport;
};

/// One family for each metric. Gauges that speak of the child's present are 0 while there is none.
std::vector<prometheus::MetricFamily> describeMetrics(const Totals& totals,
                                                      const ControllerState& state);

}  // namespace vesk::controller
