// Takes over the forwarders that an earlier controller has left running, and replaces them. The
// loop is in supervisor.cpp.
#include <algorithm>
#include <string>
#include <utility>

#include "config/instance_configurations.h"
#include "service/plural_text.h"
#include "service/supervisor.h"

namespace vesk::controller {

/// Only a killed controller leaves forwarders or rules.
Adoption Supervisor::findForwarders() {
    const SteeringMap left =
        isSteered(wanted_) && !passed_.empty() ? Steering::left(wanted_) : SteeringMap();
    Adoption adoption = adoptForwarders(std::move(passed_), wanted_, left, notification_, log_);
    // Without forwarders the rules are made anew.
    rulesFit_ = adoption.rulesFit && !adoption.forwarders.empty();
    ports_ = isSteered(wanted_) ? adoption.ports : firstPorts(wanted_);
    return adoption;
}

/// Where some are taken over, one that cannot be started does not end these.
bool Supervisor::startOrAdopt(Adoption adoption) {
    const bool adopts = !adoption.forwarders.empty();
    for (const auto& instance : instances_) {
        const auto running = adoption.forwarders.find(instance->identity().number);
        if (running != adoption.forwarders.end()) {
            instance->adopt(std::move(running->second));
        } else if (!instance->start()) {
            if (!adopts) {
                return false;
            }
            instance->startLater();
        }
    }
    if (adoption.leftOver) {
        tidyUp(std::move(*adoption.leftOver));
    }
    if (adopts) {
        if (adopted() == instances_.size()) {
            commonRound_ = Instance::Round::none;
        }
        finishRound();
        replaceAdopted();
    }
    return true;
}

/// The datagrams go to the other forwarder of its instance, also those of flows with a source that
/// had not been moved. It drains, in case that they have not done so for long, and its port is free
/// then.
void Supervisor::tidyUp(RunningForwarder leftOver) {
    const std::size_t number = leftOver.place.number;
    std::vector<std::uint16_t> ports = ports_;
    ports[number] = leftOver.place.port;
    Configuration part = instances_[number]->wanted();
    const Configuration place = instanceConfigurations(wanted_, ports)[number];
    part.downstream = place.downstream;
    part.lateral = place.lateral;
    replacement_.emplace();
    replacement_->onlyAdopted = true;
    replacement_->leftOver = makeInstance(number, std::move(part), InstanceRole::retired);
    replacement_->leftOver->adopt(std::move(leftOver.descriptors));
    replacement_->leftOver->retire();
    for (const SourceFlow& flow : replacement_->leftOver->sourceFlows()) {
        replacement_->leftOver->release(flow.label);
    }
    log_.say(LogLevel::info, nameOf(number) + ": a second forwarder, on port " +
                                 std::to_string(ports[number]) + ", drains");
    replacement_->leftOver->terminate(drainOfReplaced());
}

std::size_t Supervisor::adopted() const {
    return static_cast<std::size_t>(std::ranges::count_if(
        instances_, [](const auto& instance) { return instance->isAdopted(); }));
}

/// What they have declared is not known, and the file may have changed.
void Supervisor::replaceAdopted() {
    if (adopted() == 0) {
        return;
    }
    log_.say(LogLevel::info,
             "replaces " + countOf(adopted(), "instance") + " of an earlier controller");
    if (!replacement_) {
        replacement_.emplace();
    }
    replacement_->onlyAdopted = true;
}

}  // namespace vesk::controller
