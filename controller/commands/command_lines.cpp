#include "commands/command_lines.h"

#include <charconv>
#include <utility>

#include "config/label_text.h"

namespace vesk::controller {

namespace {

/// The attributes of one leg. Their names in the forwarder begin with a common prefix.
void addLeg(Command& command, const Leg& leg, const std::string& prefix, const std::string& label) {
    auto& attributes = command.attributes;
    if (leg.label) {
        attributes.emplace_back(label, labelText(*leg.label));
    }
    if (leg.signature) {
        attributes.emplace_back(prefix + "_key", leg.signature->keyDigits);
        attributes.emplace_back(prefix + "_algo", leg.signature->algorithm);
    }
    if (leg.dscp) {
        attributes.emplace_back(prefix + "_dscp_v4", std::to_string(*leg.dscp));
        attributes.emplace_back(prefix + "_dscp_v6", std::to_string(*leg.dscp));
    }
}

void addAddress(Command& command, const std::optional<HostPort>& address,
                const std::string& prefix) {
    if (address) {
        command.attributes.emplace_back(prefix + "_ip", address->host);
        command.attributes.emplace_back(prefix + "_port", std::to_string(address->port));
    }
}

void addAuxiliary(Command& command, const AuxiliaryFlows& auxiliary) {
    command.attributes.emplace_back("down_aux_flow_label_prefix", std::to_string(auxiliary.prefix));
    command.attributes.emplace_back("up_aux_flow_label", labelText(auxiliary.upstreamLabel));
    addAddress(command, auxiliary.upstream, "up_aux_flow");
}

Command flowCommand(const char* word, const Flow& flow) {
    return {word,
            {{"label", labelText(flow.label)}},
            (flow.isNext ? "next of flow " : "flow ") + flow.name,
            flow.label};
}

std::string trueOrFalse(bool value) {
    return value ? "true" : "false";
}

}  // namespace

std::vector<std::string> programArguments(const ForwarderSettings& settings) {
    return {settings.framing, std::to_string(settings.cleanupInterval.count()),
            trueOrFalse(settings.expireMainFlows), trueOrFalse(settings.expireAuxiliaryFlows)};
}

std::vector<std::string> programEnvironment(const ForwarderSettings& settings) {
    return {"VESK_IPV4_SOURCE=" + settings.ipv4Source};
}

Command logCommand(const std::string& level) {
    return {"log", {{"priority", level}}, "the log level"};
}

Command startCommand(const HostPort& listen) {
    return {"start",
            {{"addr", listen.host}, {"port", std::to_string(listen.port)}},
            "the downstream address"};
}

std::optional<HostPort> addressOf(const Command& start) {
    HostPort address;
    for (const auto& [name, value] : start.attributes) {
        if (name == "addr") {
            address.host = value;
        } else if (name == "port") {
            std::from_chars(value.data(), value.data() + value.size(), address.port);
        }
    }
    return address.host.empty() ? std::nullopt : std::optional(address);
}

Command stopCommand() {
    return {"stop", {}, "the downstream address"};
}

std::vector<Command> listenCommands(const HostPort& listen) {
    return {stopCommand(), startCommand(listen)};
}

Command statsCommand() {
    return {"stats", {}, "the report"};
}

Command setCommand(const Flow& flow) {
    Command command = flowCommand("set", flow);
    addAddress(command, flow.upstream, "up");
    addAddress(command, flow.source, "up_src");
    addAddress(command, flow.peer, "down");
    if (flow.multiplex) {
        command.attributes.emplace_back("is_multiplex", "true");
    }
    addLeg(command, flow.fromPeer, "down_in", "");
    addLeg(command, flow.toUpstream, "up_out", "up_label");
    addLeg(command, flow.fromUpstream, "up_in", "");
    addLeg(command, flow.toPeer, "down_out", "down_label");
    if (flow.auxiliary) {
        addAuxiliary(command, *flow.auxiliary);
    }
    return command;
}

Command delCommand(const Flow& flow) {
    return flowCommand("del", flow);
}

Command lateralPeerCommand(std::uint32_t index, const std::string& address) {
    return {"add_lateral_peer",
            {{"idx", std::to_string(index)}, {"addr", address}},
            "lateral peer " + std::to_string(index)};
}

std::vector<Command> lateralCommands(const Lateral& lateral) {
    std::vector<Command> commands;
    for (const auto& [index, address] : lateral.peers) {
        commands.push_back(lateralPeerCommand(index, address));
    }
    commands.push_back({"start_lateral",
                        {{"addr", lateral.listen.host},
                         {"port", std::to_string(lateral.listen.port)},
                         {"idx", std::to_string(lateral.index)},
                         {"max_qels", std::to_string(lateral.instances)}},
                        "the lateral stream"});
    return commands;
}

std::vector<Command> allCommands(const Configuration& configuration) {
    std::vector<Command> commands{logCommand(configuration.forwarder.logLevel)};
    for (const auto& [label, flow] : configuration.flows) {
        commands.push_back(setCommand(flow));
    }
    if (configuration.lateral) {
        for (Command& command : lateralCommands(*configuration.lateral)) {
            commands.push_back(std::move(command));
        }
    }
    commands.push_back(startCommand(configuration.downstream));
    return commands;
}

}  // namespace vesk::controller
