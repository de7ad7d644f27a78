// Replaces the forwarder of each instance by a new one without losing a datagram: the new one is
// set up on a port that is not in use, the rules of the packet filter send the datagrams there, and
// the old one drains and ends. The loop is in supervisor.cpp.
#include <algorithm>
#include <deque>
#include <iterator>
#include <string>
#include <utility>

#include "config/instance_configurations.h"
#include "service/plural_text.h"
#include "service/supervisor.h"

namespace vesk::controller {

namespace {

/// A new forwarder that keeps logging, but is not ready after this number of times
/// controller.answer_seconds, is given up.
constexpr int patience = 3;

/// Even if controller.drain_seconds is 0: the datagrams in the receive buffer of the old forwarder,
/// and the replies to them, must not be lost.
constexpr std::chrono::seconds shortestDrain{2};

}  // namespace

std::string Supervisor::nameOf(std::size_t instance) const {
    return areSeveral() ? "instance " + std::to_string(instance) : "the forwarder";
}

void Supervisor::beginReplacement() {
    if (!isSteered(wanted_)) {
        log_.say(LogLevel::warn,
                 "SIGUSR2 is ignored: a replacement needs downstream.instance_ports");
    } else if (!running()) {
        log_.say(LogLevel::warn, "SIGUSR2 is ignored: the controller is ending");
    } else if (replacement_) {
        log_.say(LogLevel::warn, "SIGUSR2 is ignored: a replacement is in progress");
    } else if (!steering_.active()) {
        log_.say(LogLevel::warn,
                 "SIGUSR2 is ignored: the public port is not steered to the instances");
    } else {
        log_.say(LogLevel::info, "replaces " + countOf(instances_.size(), "instance"));
        replacement_.emplace();
    }
}

/// Takes the next step if it is possible now.
void Supervisor::continueReplacement() {
    if (!replacement_) {
        return;
    }
    if (replacement_->outgoing && replacement_->outgoing->ended()) {
        dropOutgoing();
    }
    if (replacement_->leftOver && replacement_->leftOver->ended()) {
        drop(replacement_->leftOver);
    }
    if (replacement_->outgoing) {
        moveSources();
    }
    if (replacement_->outgoing || replacement_->leftOver) {
        return;
    }
    if (!running()) {
        replacement_.reset();
    } else if (replacement_->incoming) {
        judgeIncoming();
    } else if (steering_.active()) {
        replaceNext();
    }
}

void Supervisor::replaceNext() {
    while (replacement_->onlyAdopted && replacement_->next < instances_.size() &&
           !instances_[replacement_->next]->isAdopted()) {
        ++replacement_->next;
    }
    if (replacement_->next == instances_.size()) {
        log_.say(LogLevel::info, "replaced " + countOf(replacement_->done, "instance"));
        endReplacement(ReplacementOutcome::done);
    } else if (instances_[replacement_->next]->settled() && !startIncoming()) {
        failReplacement("its program cannot be run");
    }
}

/// The ports of the instances if the new forwarder takes over.
std::vector<std::uint16_t> Supervisor::portsWithSpare() const {
    std::vector<std::uint16_t> ports = ports_;
    std::uint16_t spare = wanted_.instancePorts->first;
    while (std::ranges::find(ports_, spare) != ports_.end()) {
        ++spare;
    }
    ports[replacement_->next] = spare;
    return ports;
}

/// An address of the lateral stream from the file cannot be bound twice. The new forwarder gets it
/// when the old one has ended.
bool Supervisor::startIncoming() {
    const std::size_t number = replacement_->next;
    Configuration part = instances_[number]->wanted();
    const Configuration place = instanceConfigurations(wanted_, portsWithSpare())[number];
    part.downstream = place.downstream;
    part.lateral = wanted_.lateral ? std::nullopt : place.lateral;
    replacement_->incoming = makeInstance(number, std::move(part), InstanceRole::onTrial);
    replacement_->giveUpAt = Clock::now() + patience * wanted_.supervision.answer;
    return replacement_->incoming->start();
}

void Supervisor::judgeIncoming() {
    const Instance& incoming = *replacement_->incoming;
    if (incoming.ended() || incoming.settled()) {
        const std::string obstacle = incoming.obstacleToReplace(*instances_[replacement_->next]);
        if (obstacle.empty()) {
            takeOver();
        } else {
            failReplacement(obstacle);
        }
    } else if (due(replacement_->giveUpAt)) {
        failReplacement("it is not ready after " +
                        std::to_string(patience * wanted_.supervision.answer.count()) + " s");
    }
}

void Supervisor::takeOver() {
    std::vector<std::uint16_t> ports = portsWithSpare();
    std::deque<SourceFlow> sources = instances_[replacement_->next]->sourceFlows();
    std::vector<std::uint32_t> staying;
    std::ranges::transform(sources, std::back_inserter(staying), &SourceFlow::label);
    if (const std::string problem = steering_.move(ports, ports_[replacement_->next], staying);
        !problem.empty()) {
        failReplacement(problem);
        return;
    }
    ports_ = std::move(ports);
    std::unique_ptr<Instance>& present = instances_[replacement_->next];
    replacement_->outgoing = std::exchange(present, std::move(replacement_->incoming));
    replacement_->giveUpAt.reset();
    present->keep();
    if (metrics_) {
        metrics_->makeCurrent(present->identity().child);
    }
    replacement_->outgoing->retire();
    if (!wanted_.lateral) {
        const std::vector<Configuration> places = instanceConfigurations(wanted_, ports_);
        for (const auto& instance : instances_) {
            if (instance != present) {
                instance->follow(places[instance->identity().number].lateral);
            }
        }
    }
    log_.say(LogLevel::info,
             nameOf(replacement_->next) + ": the new forwarder has taken over on port " +
                 std::to_string(ports_[replacement_->next]) +
                 (sources.empty()
                      ? "; the old one drains"
                      : "; to be moved: " + countOf(sources.size(), "flow") + " with a source"));
    if (sources.empty()) {
        drainOutgoing();
    } else {
        replacement_->sources.emplace(std::move(sources), sourceMoveActions());
    }
}

void Supervisor::drainOutgoing() {
    replacement_->outgoing->terminate(drainOfReplaced());
}

std::chrono::seconds Supervisor::drainOfReplaced() const {
    return std::max(wanted_.supervision.drain, shortestDrain);
}

void Supervisor::drop(std::unique_ptr<Instance>& instance) {
    const ChildId child = instance->identity().child;
    instance.reset();
    if (metrics_) {
        metrics_->removeChild(child);
    }
}

void Supervisor::dropOutgoing() {
    if (replacement_->sources) {
        log_.say(LogLevel::error,
                 nameOf(replacement_->next) +
                     ": the old forwarder ended before all its flows with a source "
                     "had been moved; left: " +
                     std::to_string(replacement_->sources->left()));
        endSourceMove();
    }
    drop(replacement_->outgoing);
    if (wanted_.lateral) {
        const std::size_t number = replacement_->next;
        instances_[number]->follow(instanceConfigurations(wanted_, ports_)[number].lateral);
    }
    ++replacement_->next;
    ++replacement_->done;
}

void Supervisor::failReplacement(const std::string& reason) {
    const std::size_t done = replacement_->done;
    log_.say(LogLevel::error,
             nameOf(replacement_->next) + " was not replaced: the new forwarder did not come up: " +
                 reason + "; the old one continues" +
                 (done > 0 ? "; replaced before it: " + countOf(done, "instance") : ""));
    drop(replacement_->incoming);
    if (adopted() > 0) {
        log_.say(LogLevel::error,
                 countOf(adopted(), "instance") +
                     " of an earlier controller may differ from the file: the next "
                     "SIGHUP or SIGUSR2 tries the replacement again");
    }
    endReplacement(ReplacementOutcome::failed);
}

void Supervisor::endReplacement(ReplacementOutcome outcome) {
    const bool ofAdopted = replacement_->onlyAdopted;
    replacement_.reset();
    if (metrics_) {
        metrics_->countReplacement(outcome);
    }
    if (ofAdopted) {
        finishRound();
    }
    if (std::exchange(reloadWaits_, false)) {
        reload();
    }
}

}  // namespace vesk::controller
