// The state of the child that does not come from its reports. MetricsServer keeps it for each child
// and adds it up for the page; any thread, under the lock of MetricsServer.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>

#include "kernel/kernel_figures.h"
#include "metrics/log_event.h"

namespace vesk::controller {

/// In the order of the obstacles to readiness, the least one first.
enum class Stage {
    settled,    ///< each flow of the file was accepted, or refused by name
    settingUp,  ///< outcomes of commands to the child are outstanding
    draining,   ///< the controller is shutting down
};

struct ChildState {
    bool childUp = false;   ///< of several instances: all of them
    bool partlyUp = false;  ///< one of several instances runs
    Stage stage = Stage::settingUp;
    std::uint64_t restarts = 0;
    std::uint64_t flowsDeclared = 0;
    std::uint64_t flowsActive = 0;
    /// Those of the flows that another instance has, too: by label, whether this one accepted it.
    std::map<std::uint32_t, bool> sharedFlows;
    bool listening = false;
    std::optional<bool> lateralListening;  ///< none if no stream is configured
    std::optional<std::chrono::system_clock::time_point> lastReport;
    LogEventCounts events{};
    KernelFigures kernel;
};

}  // namespace vesk::controller
