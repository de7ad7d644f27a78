// Makes the supervisor's instances and steers the public port to them. The loop is in
// supervisor.cpp.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "config/instance_configurations.h"
#include "service/plural_text.h"
#include "service/supervisor.h"

namespace vesk::controller {

/// Makes and starts the instances. False, after logging, if one cannot be started.
bool Supervisor::begin() {
    Adoption adoption = findForwarders();
    surroundings_.emplace(InstanceSurroundings{options_, notification_, log_, metrics_.get(),
                                               ports_.size(), isSteered(wanted_)});
    if (isSteered(wanted_)) {
        steer();
    } else {
        removeLeftRules();
    }
    peers_.take(wanted_.lateral, std::nullopt);
    publishPeers();
    takeRotations(wanted_);
    std::vector<Configuration> parts = instanceConfigurations(wanted_, ports_);
    wanted_.flows.clear();
    for (std::size_t number = 0; number < parts.size(); ++number) {
        instances_.push_back(makeInstance(number, std::move(parts[number]), InstanceRole::kept));
        if (metrics_ && number > 0) {
            metrics_->makeCurrent(instances_.back()->identity().child);
        }
    }
    commonRound_ = Instance::Round::replay;
    return startOrAdopt(std::move(adoption));
}

/// An earlier controller of this port had several instances and was killed. Its rules would send
/// the datagrams to ports on which nobody listens.
void Supervisor::removeLeftRules() {
    const std::uint16_t port = wanted_.downstream.port;
    const std::optional<std::string> problem = Steering::removeLeft(port);
    if (!problem) {
        return;
    }
    const std::string rules =
        "the rules of the packet filter that an earlier controller has left for port " +
        std::to_string(port);
    if (problem->empty()) {
        log_.say(LogLevel::info, "removed " + rules);
    } else {
        log_.say(LogLevel::warn,
                 rules + " cannot be removed and may steer its datagrams away: " + *problem +
                     "; run nft delete table inet vesk_" + std::to_string(port));
    }
}

/// The figures of the first instance's first forwarder exist from the beginning.
std::unique_ptr<Instance> Supervisor::makeInstance(std::size_t number, Configuration part,
                                                   InstanceRole role) {
    const bool known = number == 0 && role == InstanceRole::kept;
    const ChildId child = known || !metrics_ ? 0 : metrics_->addChild(number);
    return std::make_unique<Instance>(*surroundings_, InstanceIdentity{number, child},
                                      std::move(part), role);
}

std::vector<Instance*> Supervisor::allInstances() const {
    std::vector<Instance*> all;
    all.reserve(instances_.size() + 3);
    for (const auto& instance : instances_) {
        all.push_back(instance.get());
    }
    if (replacement_) {
        for (const auto* const one :
             {&replacement_->incoming, &replacement_->outgoing, &replacement_->leftOver}) {
            if (*one) {
                all.push_back(one->get());
            }
        }
    }
    return all;
}

void Supervisor::steer() {
    const std::string problem = std::exchange(rulesFit_, false) ? steering_.goOn(wanted_, ports_)
                                                                : steering_.begin(wanted_, ports_);
    publishSteering({});
    if (problem.empty()) {
        steerPause_ = {wanted_.supervision.restartPause, wanted_.supervision.restartPauseMax};
        steerAgainAt_ = Clock::now() + wanted_.supervision.stats;
        log_.say(LogLevel::info, "steers port " + std::to_string(wanted_.downstream.port) + " to " +
                                     countOf(ports_.size(), "instance"));
        return;
    }
    const std::chrono::milliseconds pause = steerPause_.after(Clock::duration::zero());
    steerAgainAt_ = Clock::now() + pause;
    log_.say(LogLevel::error, problem);
    log_.say(LogLevel::warn, "tries to steer again in " + std::to_string(pause.count()) + " ms");
}

/// Rules are also lost if somebody else flushes all of the packet filter.
void Supervisor::checkSteering() {
    const std::optional<SteeringCounters> counters =
        steering_.active() ? steering_.counters() : std::nullopt;
    if (counters) {
        publishSteering(*counters);
        steerAgainAt_ = Clock::now() + wanted_.supervision.stats;
        return;
    }
    if (steering_.active()) {
        log_.say(LogLevel::error,
                 "the rules of the packet filter were removed: creates them again");
    }
    steer();
    finishRound();
}

}  // namespace vesk::controller
