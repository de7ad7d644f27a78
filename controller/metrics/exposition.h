// The metrics by name: turns the totals into what the metrics page shows. MetricsServer calls it
// for each scrape. docs/metrics.md has the same list for the reader; a test compares the two.
#pragma once

#include <prometheus/metric_family.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "kernel/kernel_figures.h"
#include "metrics/log_events.h"
#include "metrics/report_totals.h"

namespace vesk::controller {

/// The outcome of a reload.
enum class ReloadOutcome {
    done,            ///< everything that changed was sent to the child
    fileRefused,     ///< the file is not usable, and nothing changed
    addressRefused,  ///< everything but the downstream address, which cannot be listened on
};

enum class Stage {
    settingUp,  ///< commands to the child have not been answered yet
    settled,    ///< each flow of the file is set, or was refused by name
    draining,   ///< the controller has been told to end
};

inline constexpr std::size_t reloadOutcomes = 3;

/// What the controller knows by itself, without a report.
struct ControllerState {
    bool childUp = false;
    Stage stage = Stage::settingUp;
    std::uint64_t restarts = 0;
    std::uint64_t flowsDeclared = 0;
    std::uint64_t flowsActive = 0;
    bool listening = false;
    std::optional<bool> lateralListening;                 ///< none where no stream is configured
    std::array<std::uint64_t, reloadOutcomes> reloads{};  ///< of each outcome
    bool lastReloadSuccessful = true;                     ///< also before the first one
    std::optional<std::chrono::system_clock::time_point> lastReport;
    LogEventCounts events{};
    KernelFigures kernel;
};

/// One family for each metric. Gauges that speak of the child's present are 0 while there is none.
std::vector<prometheus::MetricFamily> describeMetrics(const Totals& totals,
                                                      const ControllerState& state);

}  // namespace vesk::controller
