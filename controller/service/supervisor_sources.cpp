// Moves the flows that send from an address of their own to the forwarder that has taken over. The
// order of the steps is in service/source_move, the rest of a replacement in
// supervisor_replacement.cpp.
#include <string>

#include "service/plural_text.h"
#include "service/supervisor.h"
#include "service/trial_listen.h"

namespace vesk::controller {

SourceMoveActions Supervisor::sourceMoveActions() {
    return {[this](std::uint32_t label) { replacement_->outgoing->release(label); },
            [this] { return replacement_->outgoing->answered(); }, tryToListen,
            [this](std::uint32_t label) { return steering_.follow(label); },
            [this, name = nameOf(replacement_->next)](const std::string& text) {
                log_.say(LogLevel::error, name + ": " + text);
            }};
}

void Supervisor::moveSources() {
    if (!replacement_->sources) {
        return;
    }
    replacement_->sources->goOn(Clock::now());
    if (replacement_->sources->done()) {
        log_.say(LogLevel::info, nameOf(replacement_->next) + ": moved " +
                                     countOf(replacement_->sources->flows(), "flow") +
                                     " with a source to the new forwarder; the old one drains");
        endSourceMove();
        drainOutgoing();
    }
}

/// The datagrams of flows that have not been moved go to the new forwarder, too.
void Supervisor::endSourceMove() {
    replacement_->sources.reset();
    if (const std::string problem = steering_.followAll(); !problem.empty()) {
        log_.say(LogLevel::error, problem);
        steer();
    }
}

}  // namespace vesk::controller
