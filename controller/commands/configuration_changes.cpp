#include "commands/configuration_changes.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

#include "commands/command_lines.h"

namespace vesk::controller {

namespace {

void append(std::vector<Command>& commands, std::vector<Command> more) {
    std::ranges::move(more, std::back_inserter(commands));
}

bool names(const Command& command, const std::string& attribute) {
    return std::ranges::any_of(command.attributes,
                               [&](const auto& it) { return it.first == attribute; });
}

/// Whether `before` has an attribute that `after` does not have: the forwarder would keep it.
bool losesAttribute(const Command& before, const Command& after) {
    return std::ranges::any_of(before.attributes,
                               [&](const auto& it) { return !names(after, it.first); });
}

std::uint16_t prefixOf(const Flow& flow) {
    return flow.auxiliary ? flow.auxiliary->prefix : std::uint16_t{0};
}

/// The commands for flows in two groups: a prefix must be released before its new owner claims it.
struct FlowCommands {
    std::vector<Command> removals;
    std::vector<Command> others;
};

void changeFlow(const Flow& before, const Flow& after, bool refused, FlowCommands& commands) {
    // Of thousands of flows a reload changes a few, and commands take time to make.
    if (!refused && before == after) {
        return;
    }
    Command set = setCommand(after);
    const Command old = setCommand(before);
    if (!refused && set.attributes == old.attributes) {
        return;
    }
    if (prefixOf(before) != 0 && prefixOf(before) != prefixOf(after)) {
        commands.removals.push_back(delCommand(before));
    } else if (refused || losesAttribute(old, set)) {
        commands.others.push_back(delCommand(after));
    }
    commands.others.push_back(std::move(set));
}

/// The prefixes under which a datagram may have created an auxiliary flow before a new flow is
/// declared.
std::set<std::uint32_t> openPrefixes(const Configuration& running, const Configuration& wanted) {
    std::set<std::uint32_t> prefixes;
    for (const Configuration* const configuration : {&running, &wanted}) {
        for (const auto& [label, flow] : configuration->flows) {
            prefixes.insert(prefixOf(flow));
        }
    }
    prefixes.erase(0);
    return prefixes;
}

/// A label that exists as an auxiliary flow is deleted first: otherwise it would keep what it
/// inherited from its owner, such as keys.
void addFlow(const Flow& flow, const std::set<std::uint32_t>& openPrefixes,
             FlowCommands& commands) {
    if (openPrefixes.contains(flow.label >> 16U)) {
        commands.others.push_back(delCommand(flow));
    }
    commands.others.push_back(setCommand(flow));
}

FlowCommands flowCommands(const Configuration& running, const Configuration& wanted,
                          const Refusals& refusals) {
    FlowCommands commands;
    const std::set<std::uint32_t> prefixes = openPrefixes(running, wanted);
    for (const auto& [label, flow] : running.flows) {
        if (!wanted.flows.contains(label)) {
            commands.removals.push_back(delCommand(flow));
        }
    }
    for (const auto& [label, flow] : wanted.flows) {
        const auto before = running.flows.find(label);
        if (before == running.flows.end()) {
            addFlow(flow, prefixes, commands);
        } else {
            changeFlow(before->second, flow, refusals.flows.contains(label), commands);
        }
    }
    return commands;
}

/// Keeps from `running` what the forwarder cannot change before it is started again.
void keepArguments(const Configuration& running, ConfigurationChanges& changes) {
    const ForwarderSettings& old = running.forwarder;
    ForwarderSettings& now = changes.after.forwarder;
    const auto keep = [&](auto ForwarderSettings::*field, const char* name) {
        if (old.*field != now.*field) {
            changes.waiting.emplace_back(name);
            now.*field = old.*field;
        }
    };
    keep(&ForwarderSettings::program, "forwarder.program");
    keep(&ForwarderSettings::framing, "forwarder.framing");
    keep(&ForwarderSettings::cleanupInterval, "forwarder.cleanup_interval");
    keep(&ForwarderSettings::expireMainFlows, "forwarder.expire_main_flows");
    keep(&ForwarderSettings::expireAuxiliaryFlows, "forwarder.expire_auxiliary_flows");
    keep(&ForwarderSettings::ipv4Source, "forwarder.ipv4_source");
}

bool samePlace(const Lateral& one, const Lateral& other) {
    return one.listen == other.listen && one.index == other.index &&
           one.instances == other.instances;
}

/// The commands for new and changed peers. A removed peer cannot be removed from the forwarder
/// before its next start, so `after` keeps it.
LateralChanges peerChanges(const Lateral& running, const Lateral& wanted) {
    LateralChanges changes{{}, {}, running};
    Lateral& after = *changes.after;
    for (const auto& [index, address] : wanted.peers) {
        const auto before = running.peers.find(index);
        if (before == running.peers.end() || before->second != address) {
            changes.commands.push_back(lateralPeerCommand(index, address));
            after.peers[index] = address;
        }
    }
    if (after.peers.size() != wanted.peers.size()) {
        changes.waiting.emplace_back("lateral.peers");
    }
    return changes;
}

}  // namespace

LateralChanges lateralChangesBetween(const std::optional<Lateral>& running,
                                     const std::optional<Lateral>& wanted, bool refused) {
    if (!running || refused) {
        return {wanted ? lateralCommands(*wanted) : std::vector<Command>(), {}, wanted};
    }
    if (wanted && samePlace(*running, *wanted)) {
        return peerChanges(*running, *wanted);
    }
    return {{}, {"lateral"}, running};
}

ConfigurationChanges changesBetween(const Configuration& running, const Configuration& wanted,
                                    const Refusals& refusals) {
    ConfigurationChanges changes;
    changes.after = wanted;
    keepArguments(running, changes);
    if (running.forwarder.logLevel != wanted.forwarder.logLevel) {
        changes.commands.push_back(logCommand(wanted.forwarder.logLevel));
    }
    FlowCommands flows = flowCommands(running, wanted, refusals);
    append(changes.commands, std::move(flows.removals));
    append(changes.commands, std::move(flows.others));
    LateralChanges lateral =
        lateralChangesBetween(running.lateral, wanted.lateral, refusals.lateral);
    append(changes.commands, std::move(lateral.commands));
    std::ranges::move(lateral.waiting, std::back_inserter(changes.waiting));
    changes.after.lateral = std::move(lateral.after);
    if (refusals.downstream || running.downstream != wanted.downstream) {
        append(changes.commands, listenCommands(wanted.downstream));
    }
    return changes;
}

}  // namespace vesk::controller
