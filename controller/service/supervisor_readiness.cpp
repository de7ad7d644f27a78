// Reports to the log, the service manager and the metrics whether the service is ready. The loop is
// in supervisor.cpp.
#include <algorithm>
#include <cstddef>
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
    std::size_t accepted = 0;
    std::size_t refused = 0;
    std::string troubles;
    for (const auto& instance : instances_) {
        accepted += instance->deployment().acceptedFlows();
        refused += instance->deployment().refusals().flows.size();
        const std::string trouble =
            instance->hasForwarder() ? instance->listenerTroubles() : ", not running";
        if (!trouble.empty()) {
            troubles += ", " + nameOf(instance->identity().number) + trouble.substr(1);
        }
    }
    return countOf(accepted, "flow") + ", " + countOf(instances_.size(), "instance") +
           (refused > 0 ? ", " + std::to_string(refused) + " refused" : "") + troubles;
}

}  // namespace vesk::controller
