#include "service/steering_warnings.h"

#include <algorithm>
#include <fstream>
#include <string_view>

#include "config/instance_configurations.h"
#include "kernel/text_words.h"
#include "steering/steering_rules.h"

namespace vesk::controller {

namespace {

constexpr const char* reservedPath = "/proc/sys/net/ipv4/ip_local_reserved_ports";

/// Whether a list such as "4501-4505,5000" contains the port.
bool listContains(std::string_view list, std::uint32_t port) {
    while (!list.empty()) {
        const std::string_view entry = list.substr(0, list.find(','));
        list.remove_prefix(std::min(entry.size() + 1, list.size()));
        const std::size_t dash = entry.find('-');
        const auto first = parseWord<std::uint32_t>(entry.substr(0, dash));
        const auto last = dash == std::string_view::npos
                              ? first
                              : parseWord<std::uint32_t>(entry.substr(dash + 1));
        if (first && last && port >= *first && port <= *last) {
            return true;
        }
    }
    return false;
}

bool mayBeGivenAway(const InstancePorts& ports, const PortRange& range,
                    const std::string& reserved) {
    for (std::uint32_t port = ports.first; port <= ports.last; ++port) {
        if (port >= range.first && port <= range.last && !listContains(reserved, port)) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::string cannotSteer(std::uint16_t publicPort, const FilterAnswer& refusal) {
    const std::string beginning = "cannot steer port " + std::to_string(publicPort) +
                                  " to the instances: the packet filter says \"" + refusal.error +
                                  "\"; ";
    return beginning +
           (refusal.permitted
                ? "use a kernel with nf_tables, its fib expression and connection "
                  "tracking, or one instance without downstream.instance_ports"
                : "grant CAP_NET_ADMIN, as the drop-in steering.conf does for the unit");
}

std::vector<std::string> instancePortWarnings(const InstancePorts& ports, const PortRange& range,
                                              const std::string& reserved) {
    if (!mayBeGivenAway(ports, range, reserved)) {
        return {};
    }
    const std::string list = std::to_string(ports.first) + "-" + std::to_string(ports.last);
    return {
        "downstream.instance_ports overlaps net.ipv4.ip_local_port_range, so the kernel may give "
        "one of them to another socket, whose datagrams would be dropped: use ports outside "
        "it, or run sysctl -w net.ipv4.ip_local_reserved_ports=" +
        list};
}

std::vector<std::string> steeringWarnings(const Configuration& configuration) {
    if (!isSteered(configuration)) {
        return {};
    }
    std::vector<std::string> warnings;
    if (const std::optional<PortRange> range = readPortRange()) {
        std::string reserved;
        std::getline(std::ifstream(reservedPath), reserved);
        warnings = instancePortWarnings(*configuration.instancePorts, *range, reserved);
    }
    const FilterAnswer answer =
        checkFilterCommands(steeringRules(steeringPlan(configuration, firstPorts(configuration))));
    if (!answer.error.empty()) {
        warnings.push_back(cannotSteer(configuration.downstream.port, answer));
    }
    return warnings;
}

}  // namespace vesk::controller
