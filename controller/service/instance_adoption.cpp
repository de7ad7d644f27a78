// How an instance takes over a forwarder that an earlier controller has started. The decision is
// made in service/adoption, the steps are in supervisor_adoption.cpp.
#include <string>
#include <utility>

#include "service/instance.h"

namespace vesk::controller {

/// The forwarder has all that the metrics and the other instances need to know, if the file has not
/// changed since.
void Instance::adopt(ForwarderDescriptors running) {
    session_.emplace(std::move(running));
    kept_.emplace(surroundings_.notification, keptPlace());
    adopted_ = true;
    log_.say(LogLevel::info,
             "takes over the running forwarder, process " + std::to_string(session_->pid()));
    deployment_.assume(wanted_);
    if (metrics_ != nullptr) {
        metrics_->childUp(true, identity_.child);
    }
    publishFlows();
    publishStage(Stage::settled);
    reportClock_.start(Clock::now());
}

}  // namespace vesk::controller
