// Reports to the log, the service manager and the metrics whether the service is ready. The loop is
// in supervisor.cpp.
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <set>
#include <string>
#include <utility>

#include "config/instance_configurations.h"
#include "service/plural_text.h"
#include "service/supervisor.h"

namespace vesk::controller {

/// Called when an instance has finished its round; waits for those of the others.
void Supervisor::finishRound() {
    if (!std::ranges::all_of(instances_, [](const auto& it) { return it->settled(); })) {
        return;
    }
    countReload();
    sayRound();
    if (!running()) {
        return;
    }
    const bool serves =
        steering_.active() == isSteered(wanted_) &&
        std::ranges::all_of(instances_, [](const auto& it) { return it->serves(); });
    if (serves) {
        ready_ = true;
        reloadTold_ = false;
        notification_.ready(summary());
    } else {
        tellReloaded(summary());
    }
}

/// A single instance reports its rounds itself.
void Supervisor::sayRound() {
    const Instance::Round finished = std::exchange(commonRound_, Instance::Round::none);
    if (!areSeveral()) {
        return;
    }
    if (finished == Instance::Round::replay) {
        log_.say(LogLevel::info, "the forwarder is set up: " + summary());
    } else if (finished == Instance::Round::reload) {
        log_.say(LogLevel::info, "reloaded: " + summary());
    }
}

/// The service manager expects READY=1 at the end of a reload, successful or not. At the start,
/// however, READY=1 is sent only once the forwarder listens.
void Supervisor::tellReloaded(std::string_view status) {
    if (std::exchange(reloadTold_, false)) {
        notification_.ready(status);
    } else {
        notification_.status(status);
    }
}

std::string Supervisor::summary() const {
    if (!areSeveral()) {
        return instances_.front()->summary();
    }
    // Two instances may have the same flow.
    std::set<std::uint32_t> declared;
    std::set<std::uint32_t> refused;
    std::string troubles;
    for (const auto& instance : instances_) {
        for (const auto& [label, flow] : instance->deployment().running().flows) {
            declared.insert(label);
        }
        refused.insert(instance->deployment().refusals().flows.begin(),
                       instance->deployment().refusals().flows.end());
        const std::string trouble =
            instance->hasForwarder() ? instance->listenerTroubles() : ", not running";
        if (!trouble.empty()) {
            troubles += ", " + nameOf(instance->identity().number) + trouble.substr(1);
        }
    }
    return countOf(declared.size() - refused.size(), "flow") + ", " +
           countOf(instances_.size(), "instance") +
           (refused.empty() ? "" : ", " + std::to_string(refused.size()) + " refused") + troubles;
}

}  // namespace vesk::controller
