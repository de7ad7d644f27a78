// Defines the metrics: turns the totals into the families of the metrics page. Called by
// MetricsServer for each scrape. docs/metrics.md has the same list; a test compares the two.
#pragma once

#include <prometheus/metric_family.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "metrics/child_state.h"
#include "metrics/report_totals.h"
#include "metrics/rotation_exposition.h"
#include "steering/steering_counters.h"

namespace vesk::controller {

/// The outcome of a reload.
enum class ReloadOutcome {
    done,            ///< all changes were sent to the child
    fileRefused,     ///< the file is not usable, and nothing changed; or a fragment is not
    addressRefused,  ///< the child cannot listen on the new downstream address; the rest was
                     ///< applied
};

inline constexpr std::size_t reloadOutcomes = 3;

/// The outcome of a replacement of the forwarder by a new one.
enum class ReplacementOutcome {
    done,    ///< all instances were replaced
    failed,  ///< an instance was not replaced, and neither were those after it
};

inline constexpr std::size_t replacementOutcomes = 2;

/// The rules of the packet filter that send the datagrams to the instances.
struct SteeringState {
    bool active = false;
    SteeringCounters counters;
};

/// The state of the controller that does not come from a report.
struct ControllerState : ChildState {
    std::array<std::uint64_t, reloadOutcomes> reloads{};            ///< by outcome
    std::array<std::uint64_t, replacementOutcomes> replacements{};  ///< by outcome
    std::optional<SteeringState> steering;  ///< none if the forwarder has the public port
    std::map<std::uint32_t, bool> peers;  ///< lateral peers with names, whether these are resolved
    bool lastReloadSuccessful = true;     ///< true before the first one
    bool leaving = false;                 ///< the controller has been told to end
    bool strict = false;                  ///< a refused flow makes the service unready
    std::vector<RotationFigures> rotations;      ///< of flows that have a `next`
    std::map<std::string, bool> fragmentErrors;  ///< by file name, if there are fragments
};

/// One family for each metric. Gauges of the child's present state are 0 while no child runs. With
/// several instances, `totals` and `state` are those of all of them.
std::vector<prometheus::MetricFamily> describeMetrics(const Totals& totals,
                                                      const ControllerState& state);

}  // namespace vesk::controller
