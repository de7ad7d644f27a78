// What an instance does while it is replaced by another one, or takes the place of one. The steps
// are in supervisor_replacement.cpp.
#include <algorithm>
#include <deque>
#include <string>

#include "commands/command_lines.h"
#include "service/instance.h"
#include "service/plural_text.h"

namespace vesk::controller {

/// A stream that is started is awaited like one that was refused, so that it is tried again.
void Instance::follow(const std::optional<Lateral>& lateral) {
    wanted_.lateral = lateral;
    if (!session_) {
        return;
    }
    const std::vector<Command> commands = deployment_.changeLateral(lateral);
    const bool starts = std::ranges::any_of(
        commands, [](const Command& command) { return command.word == "start_lateral"; });
    if (starts && round_ == Round::none) {
        round_ = Round::listen;
    }
    sendAll(commands);
}

std::string Instance::obstacleToReplace(const Instance& old) const {
    if (!session_) {
        return "it ended";
    }
    const std::set<std::uint32_t>& before = old.deployment_.refusals().flows;
    const std::set<std::uint32_t>& now = deployment_.refusals().flows;
    const auto more =
        std::ranges::count_if(now, [&](std::uint32_t label) { return !before.contains(label); });
    // What an adopted one has accepted is not known.
    if (more > 0 && !old.adopted_) {
        return "it refuses " + countOf(static_cast<std::size_t>(more), "flow") +
               " that the old one accepted";
    }
    return deployment_.listensEverywhere() ? "" : "it does not listen";
}

std::deque<SourceFlow> Instance::sourceFlows() const {
    std::deque<SourceFlow> found;
    if (!session_) {
        return found;
    }
    for (const auto& [label, flow] : deployment_.running().flows) {
        if (const std::optional<HostPort> source = ownSource(flow)) {
            found.push_back({flow.name, label, *source});
        }
    }
    return found;
}

void Instance::retire() {
    role_ = InstanceRole::retired;
    for (const auto& [label, flow] : deployment_.running().flows) {
        if (flow.source && !ownSource(flow)) {
            release(label);
        }
    }
}

void Instance::release(std::uint32_t label) {
    const auto found = deployment_.running().flows.find(label);
    if (session_ && found != deployment_.running().flows.end()) {
        session_->send(delCommand(found->second));
    }
}

}  // namespace vesk::controller
