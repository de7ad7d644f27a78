// Defines the metrics: turns the totals into the families of the metrics page. Called by
// MetricsServer for each scrape. docs/metrics.md has the same list; a test compares the two.
#pragma once

#include <prometheus/metric_family.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "kernel/kernel_figures.h"
#include "metrics/log_event.h"
#include "metrics/report_totals.h"

namespace vesk::controller {

/// The outcome of a reload.
enum class ReloadOutcome {
    done,            ///< all changes were sent to the child
    fileRefused,     ///< the file is not usable; nothing changed
    addressRefused,  ///< the child cannot listen on the new downstream address; the rest was
                     ///< applied
};

enum class Stage {
    settingUp,  ///< outcomes of commands to the child are outstanding
    settled,    ///< each flow of the file was accepted, or refused by name
    draining,   ///< the controller is shutting down
};

inline constexpr std::size_t reloadOutcomes = 3;

/// The state of the controller that does not come from a report.
struct ControllerState {
    bool childUp = false;
    Stage stage = Stage::settingUp;
    std::uint64_t restarts = 0;
    std::uint64_t flowsDeclared = 0;
    std::uint64_t flowsActive = 0;
    bool listening = false;
    std::optional<bool> lateralListening;                 ///< none if no stream is configured
    std::array<std::uint64_t, reloadOutcomes> reloads{};  ///< by outcome
    bool lastReloadSuccessful = true;                     ///< true before the first one
    std::optional<std::chrono::system_clock::time_point> lastReport;
    LogEventCounts events{};
    KernelFigures kernel;
};

/// One family for each metric. Gauges of the child's present state are 0 while no child runs.
std::vector<prometheus::MetricFamily> describeMetrics(const Totals& totals,
                                                      const ControllerState& state);

}  // namespace vesk::controller
