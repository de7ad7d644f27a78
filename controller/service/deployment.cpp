#include "service/deployment.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "commands/command_lines.h"

namespace vesk::controller {

std::vector<Command> Deployment::begin(const Configuration& wanted) {
    take(wanted);
    refusals_ = {};
    listeningOn_.reset();
    lateralListening_ = false;
    return allCommands(wanted);
}

void Deployment::assume(const Configuration& wanted) {
    take(wanted);
    noteStart(wanted.downstream, false);
    lateralListening_ = wanted.lateral.has_value();
}

ConfigurationChanges Deployment::change(const Configuration& wanted) {
    ConfigurationChanges changes = changesBetween(running_, wanted, refusals_);
    take(std::move(changes.after));
    return changes;
}

std::vector<Command> Deployment::remove(std::uint32_t label) {
    const auto flow = running_.flows.find(label);
    if (flow == running_.flows.end()) {
        return {};
    }
    std::vector<Command> commands{delCommand(flow->second)};
    running_.flows.erase(flow);
    refusals_.flows.erase(label);
    names_.erase(label);
    return commands;
}

std::vector<Command> Deployment::changeLateral(const std::optional<Lateral>& wanted) {
    LateralChanges changes = lateralChangesBetween(running_.lateral, wanted, false);
    running_.lateral = std::move(changes.after);
    return std::move(changes.commands);
}

void Deployment::note(const Outcome& outcome) {
    const Command& command = outcome.command;
    const bool refused = !outcome.errors.empty();
    if (command.word == "start") {
        noteStart(addressOf(command), refused);
    } else if (command.word == "stop") {
        listeningOn_.reset();
    } else if (command.word == "start_lateral") {
        // It cannot be stopped: a second start is refused since the first was not.
        lateralListening_ = lateralListening_ || !refused;
        refusals_.lateral = !lateralListening_;
    } else if (command.label != 0 && !refused) {
        refusals_.flows.erase(command.label);
    } else if (command.label != 0 && running_.flows.contains(command.label)) {
        refusals_.flows.insert(command.label);
    }
}

std::map<std::uint32_t, bool> Deployment::sharedFlows() const {
    std::map<std::uint32_t, bool> shared;
    for (const auto& [label, flow] : running_.flows) {
        if (flow.onTwoInstances) {
            shared.emplace(label, !refusals_.flows.contains(label));
        }
    }
    return shared;
}

void Deployment::noteStart(const std::optional<HostPort>& address, bool refused) {
    refusals_.downstream = refused;
    listeningOn_ = refused ? std::nullopt : address;
    if (!refused) {
        lastListenedOn_ = address;
    } else if (lastListenedOn_ == address) {
        lastListenedOn_.reset();
    }
}

std::optional<HostPort> Deployment::addressToReturnTo(const Outcome& start) const {
    const bool last = addressOf(start.command) == running_.downstream;
    return last && !start.errors.empty() ? lastListenedOn_ : std::nullopt;
}

std::optional<bool> Deployment::lateralListening() const {
    return running_.lateral ? std::optional(lateralListening_) : std::nullopt;
}

std::vector<Command> Deployment::listenOn(const HostPort& address) {
    running_.downstream = address;
    return listenCommands(address);
}

std::vector<Command> Deployment::listenAgain() const {
    std::vector<Command> commands;
    if (refusals_.lateral && running_.lateral) {
        commands = lateralCommands(*running_.lateral);
    }
    if (refusals_.downstream) {
        std::ranges::move(listenCommands(running_.downstream), std::back_inserter(commands));
    }
    return commands;
}

void Deployment::take(Configuration running) {
    running_ = std::move(running);
    std::erase_if(refusals_.flows,
                  [&](std::uint32_t label) { return !running_.flows.contains(label); });
    refusals_.lateral = refusals_.lateral && running_.lateral.has_value();
    names_.clear();
    for (const auto& [label, flow] : running_.flows) {
        names_.emplace(label, flow.name);
    }
}

}  // namespace vesk::controller
