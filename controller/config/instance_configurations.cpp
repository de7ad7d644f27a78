#include "config/instance_configurations.h"

#include <string>
#include <utility>

namespace vesk::controller {

namespace {

constexpr std::uint32_t prefixBits = 16;

/// The address for the lateral stream of an instance on the port: one of 127.86.0.0/16. `first` is
/// the first port of the range.
std::string loopbackAddress(std::uint16_t port, std::uint16_t first) {
    constexpr std::uint32_t byteBits = 8;
    constexpr std::uint32_t byteMask = 0xff;
    // From 1: some systems treat an address that ends with zeros as a broadcast address.
    const std::uint32_t number = port - first + 1U;
    return "127.86." + std::to_string(number >> byteBits) + "." + std::to_string(number & byteMask);
}

Lateral streamOfThisHost(const InstancePorts& range, const std::vector<std::uint16_t>& ports,
                         std::size_t instance) {
    Lateral lateral;
    lateral.listen = {loopbackAddress(ports[instance], range.first), range.lateral};
    lateral.index = static_cast<std::uint32_t>(instance);
    lateral.instances = static_cast<std::uint32_t>(ports.size());
    for (std::size_t other = 0; other < ports.size(); ++other) {
        if (other != instance) {
            lateral.peers.emplace(static_cast<std::uint32_t>(other),
                                  loopbackAddress(ports[other], range.first));
        }
    }
    return lateral;
}

/// The index of instance i of host h is h * N + i, so that index mod N is i: the owner of a label
/// among all hosts is the instance to which each host steers it.
Lateral streamOfHosts(const LateralHosts& hosts, std::size_t instance) {
    const std::size_t perHost = hosts.addresses.size();
    const auto indexOf = [&](std::uint32_t host, std::size_t number) {
        return static_cast<std::uint32_t>(host * perHost + number);
    };
    Lateral lateral;
    lateral.listen = {hosts.addresses[instance], hosts.port};
    lateral.index = indexOf(hosts.index, instance);
    lateral.instances = indexOf(hosts.hosts, 0);
    const auto addPeers = [&](std::uint32_t host, const std::vector<std::string>& addresses) {
        for (std::size_t number = 0; number < addresses.size(); ++number) {
            lateral.peers.emplace(indexOf(host, number), addresses[number]);
        }
    };
    addPeers(hosts.index, hosts.addresses);
    for (const auto& [host, addresses] : hosts.peers) {
        addPeers(host, addresses);
    }
    lateral.peers.erase(lateral.index);
    return lateral;
}

std::optional<Lateral> lateralOf(const Configuration& configuration,
                                 const std::vector<std::uint16_t>& ports, std::size_t instance) {
    if (configuration.lateralHosts) {
        return streamOfHosts(*configuration.lateralHosts, instance);
    }
    return ports.size() == 1 ? configuration.lateral
                             : streamOfThisHost(*configuration.instancePorts, ports, instance);
}

/// A flow whose prefix belongs to another instance than its label is declared on both. Only one of
/// them gets the prefix.
void addFlow(const Configuration& whole, const Flow& flow, std::vector<Configuration>& parts) {
    const std::size_t owner = instanceOf(whole, flow.label >> prefixBits);
    Flow& declared = parts[owner].flows.emplace(flow.label, flow).first->second;
    if (!flow.auxiliary) {
        return;
    }
    const std::size_t auxiliaryOwner = instanceOf(whole, flow.auxiliary->prefix);
    if (auxiliaryOwner != owner) {
        declared.auxiliary.reset();
        parts[auxiliaryOwner].flows.emplace(flow.label, flow);
    }
}

}  // namespace

bool isSteered(const Configuration& configuration) {
    return configuration.instancePorts.has_value();
}

std::size_t instanceOf(const Configuration& configuration, std::uint32_t prefix) {
    return prefix % configuration.forwarder.instances;
}

std::vector<std::uint16_t> firstPorts(const Configuration& configuration) {
    if (!isSteered(configuration)) {
        return {configuration.downstream.port};
    }
    std::vector<std::uint16_t> ports(configuration.forwarder.instances);
    for (std::size_t instance = 0; instance < ports.size(); ++instance) {
        ports[instance] = static_cast<std::uint16_t>(configuration.instancePorts->first + instance);
    }
    return ports;
}

std::vector<Configuration> instanceConfigurations(const Configuration& configuration,
                                                  const std::vector<std::uint16_t>& ports) {
    if (!isSteered(configuration)) {
        return {configuration};
    }
    Configuration common = configuration;
    common.flows.clear();
    common.forwarder.instances = 1;
    common.instancePorts.reset();
    common.lateralHosts.reset();
    std::vector<Configuration> parts(ports.size(), common);
    for (std::size_t instance = 0; instance < ports.size(); ++instance) {
        parts[instance].downstream.port = ports[instance];
        parts[instance].lateral = lateralOf(configuration, ports, instance);
    }
    for (const auto& [label, flow] : configuration.flows) {
        addFlow(configuration, flow, parts);
    }
    return parts;
}

}  // namespace vesk::controller
