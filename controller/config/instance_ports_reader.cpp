#include "config/instance_ports_reader.h"

#include <array>
#include <cstddef>
#include <string>

#include "config/address_reader.h"
#include "config/instance_configurations.h"

namespace vesk::controller {

namespace {

bool contains(const InstancePorts& range, std::uint16_t port) {
    return port >= range.first && port <= range.last;
}

/// First and last port, or zeros after a problem was added.
InstancePorts readRange(TableReader& table) {
    const toml::array* const ends = table.array("instance_ports");
    std::array<std::int64_t, 2> ports{};
    bool good = ends != nullptr && ends->size() == ports.size();
    for (std::size_t end = 0; good && end < ports.size(); ++end) {
        ports[end] = ends->get(end)->value_exact<std::int64_t>().value_or(0);
        good = ports[end] >= 1 && ports[end] <= greatestPort;
    }
    if (!good || ports[0] > ports[1]) {
        table.complain("instance_ports", "must be the first and the last port, like [4501, 4505]");
        return {};
    }
    return {static_cast<std::uint16_t>(ports[0]), static_cast<std::uint16_t>(ports[1]), 0};
}

void checkRange(TableReader& table, const Configuration& configuration,
                const InstancePorts& range) {
    const std::uint32_t needed = configuration.forwarder.instances + 1;
    if (range.last - range.first + 1U < needed) {
        table.complain("instance_ports",
                       "must be at least " + std::to_string(needed) +
                           " ports: one for each instance, and one for a replacement");
    }
    if (contains(range, configuration.downstream.port)) {
        table.complain("instance_ports", "contains downstream.port");
    }
}

/// By default the port after the range.
std::uint16_t readLateralPort(TableReader& table, const Configuration& configuration,
                              const InstancePorts& range) {
    const bool given = table.has("lateral_port");
    const std::uint16_t port =
        given ? readPort(table, "lateral_port") : static_cast<std::uint16_t>(range.last + 1);
    if (given && configuration.forwarder.instances == 1) {
        table.complain("lateral_port", "requires several forwarder.instances");
    } else if (!given && (port == 0 || port == configuration.downstream.port)) {
        table.complain("lateral_port",
                       "is missing: its default, the port after instance_ports, is not usable");
    } else if (contains(range, port) || port == configuration.downstream.port) {
        table.complain("lateral_port", "is one of downstream.instance_ports, or downstream.port");
    }
    return port;
}

/// The flow that was read from the table; none if it has no label.
const Flow* flowOf(const toml::table& table, const Configuration& configuration) {
    const std::int64_t label = table["label"].value_exact<std::int64_t>().value_or(0);
    const auto flow = configuration.flows.find(static_cast<std::uint32_t>(label));
    return flow == configuration.flows.end() ? nullptr : &flow->second;
}

}  // namespace

std::optional<InstancePorts> readInstancePorts(TableReader& downstream,
                                               const Configuration& configuration) {
    const bool several = configuration.forwarder.instances > 1;
    if (!downstream.has("instance_ports")) {
        if (several) {
            downstream.complain("instance_ports",
                                "is missing: several instances need ports of their own");
        }
        return std::nullopt;
    }
    InstancePorts ports = readRange(downstream);
    if (ports.first != 0) {
        checkRange(downstream, configuration, ports);
        ports.lateral = readLateralPort(downstream, configuration, ports);
    }
    return ports;
}

// A reply to a shared source arrives at one of the sockets, so they have to be in one process.
std::string SourceUsers::share(const HostPort& source, const User& user) {
    const auto [first, added] = users_.try_emplace({source.host, source.port}, user);
    if (added || first->second.instance == user.instance) {
        return "";
    }
    return "is also that of " + first->second.place +
           ", which belongs to another instance: instance (label >> 16) mod forwarder.instances "
           "has the flow";
}

std::string SourceUsers::add(const Flow& flow, const std::string& place,
                             const Configuration& settings) {
    if (!flow.source) {
        return "";
    }
    if (contains(*settings.instancePorts, flow.source->port)) {
        return "has one of downstream.instance_ports";
    }
    std::string problem =
        share(*flow.source, {instanceOf(settings, flow.label >> prefixBits), place});
    if (problem.empty() && flow.auxiliary) {
        problem = share(*flow.source,
                        {instanceOf(settings, flow.auxiliary->prefix), place + ".auxiliary"});
    }
    return problem;
}

void checkSources(TableReader& flows, const Configuration& configuration) {
    SourceUsers users;
    const auto check = [&](const toml::table& table, const std::string& place) {
        TableReader reader(table, place, flows.problems());
        const Flow* const flow = flowOf(table, configuration);
        const std::string problem = flow == nullptr ? "" : users.add(*flow, place, configuration);
        if (!problem.empty()) {
            reader.complain("source", problem);
        }
    };
    for (const auto& [key, node] : flows.raw()) {
        if (const toml::table* const table = node.as_table()) {
            const std::string place = flows.placeOf(key.str());
            check(*table, place);
            if (const toml::table* const next = (*table)["next"].as_table()) {
                check(*next, place + ".next");
            }
        }
    }
}

}  // namespace vesk::controller
