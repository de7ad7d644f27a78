#include "config/instance_configurations.h"

#include <optional>
#include <string>

namespace vesk::controller {

namespace {

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

/// The part of one instance of a stream that joins several hosts. The indices of a host begin with
/// a multiple of its number of instances, so the owner of a label is, on each host, the instance to
/// which the host steers it.
Lateral partOf(const Lateral& whole, std::size_t instance) {
    Lateral lateral = whole;
    lateral.listen.host = whole.addresses[instance];
    lateral.addresses.clear();
    lateral.index = whole.index + static_cast<std::uint32_t>(instance);
    for (std::size_t other = 0; other < whole.addresses.size(); ++other) {
        if (other != instance) {
            lateral.peers.emplace(whole.index + static_cast<std::uint32_t>(other),
                                  whole.addresses[other]);
        }
    }
    return lateral;
}

std::optional<Lateral> lateralOf(const Configuration& configuration,
                                 const std::vector<std::uint16_t>& ports, std::size_t instance) {
    if (ports.size() == 1) {
        return configuration.lateral;
    }
    return configuration.lateral ? partOf(*configuration.lateral, instance)
                                 : streamOfThisHost(*configuration.instancePorts, ports, instance);
}

void dropLonelyStream(Configuration& part) {
    if (part.lateral && part.lateral->peers.empty()) {
        part.lateral.reset();
    }
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
        declared.onTwoInstances = true;
        parts[auxiliaryOwner].flows.emplace(flow.label, flow).first->second.onTwoInstances = true;
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
        // Not {configuration}, which copies all flows twice.
        std::vector<Configuration> all(1, configuration);
        dropLonelyStream(all.front());
        return all;
    }
    Configuration common = configuration;
    common.flows.clear();
    common.forwarder.instances = 1;
    common.instancePorts.reset();
    std::vector<Configuration> parts(ports.size(), common);
    for (std::size_t instance = 0; instance < ports.size(); ++instance) {
        parts[instance].downstream.port = ports[instance];
        parts[instance].lateral = lateralOf(configuration, ports, instance);
        dropLonelyStream(parts[instance]);
    }
    for (const auto& [label, flow] : configuration.flows) {
        addFlow(configuration, flow, parts);
    }
    return parts;
}

}  // namespace vesk::controller
