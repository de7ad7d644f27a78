#include "service/deployment.h"

#include <utility>

#include "commands/command_lines.h"

namespace vesk::controller {

std::vector<Command> Deployment::begin(const Configuration& wanted) {
    take(wanted);
    refusals_ = {};
    return allCommands(wanted);
}

ConfigurationChanges Deployment::change(const Configuration& wanted) {
    ConfigurationChanges changes = changesBetween(running_, wanted, refusals_);
    take(changes.after);
    return changes;
}

void Deployment::note(const Outcome& outcome) {
    const Command& command = outcome.command;
    const bool refused = !outcome.errors.empty();
    if (command.word == "start") {
        refusals_.downstream = refused;
    } else if (command.word == "start_lateral") {
        refusals_.lateral = refused;
    } else if (command.label != 0 && !refused) {
        refusals_.flows.erase(command.label);
    } else if (command.label != 0 && running_.flows.contains(command.label)) {
        refusals_.flows.insert(command.label);
    }
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
