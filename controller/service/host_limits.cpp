#include "service/host_limits.h"

#include <sys/resource.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <utility>

#include "config/numeric_address.h"
#include "service/plural_text.h"

namespace vesk::controller {

namespace {

constexpr std::uint64_t descriptorsOfFlow = 2;
/// Eight of the forwarder itself, and a reserve for libraries.
constexpr std::uint64_t descriptorsBesides = 100;

// The buffer sizes that the forwarder requests.
constexpr std::uint64_t receiveBuffer = 1048576;
constexpr std::uint64_t sendBuffer = 262144;

std::optional<std::uint64_t> readNumber(const char* path) {
    std::ifstream file(path);
    std::uint64_t number = 0;
    return file >> number ? std::optional(number) : std::nullopt;
}

void warnOfBuffer(const char* name, std::optional<std::uint64_t> limit, std::uint64_t wanted,
                  std::vector<std::string>& warnings) {
    if (limit && *limit < wanted) {
        warnings.push_back("net.core." + std::string(name) + " is " + std::to_string(*limit) +
                           ", which limits socket buffers to less than " + std::to_string(wanted) +
                           " bytes: run sysctl -w net.core." + name + "=" + std::to_string(wanted));
    }
}

}  // namespace

std::optional<PortRange> readPortRange() {
    std::ifstream file("/proc/sys/net/ipv4/ip_local_port_range");
    PortRange range;
    return file >> range.first >> range.last ? std::optional(range) : std::nullopt;
}

std::vector<std::string> descriptorWarnings(const Configuration& configuration,
                                            std::uint64_t hardLimit) {
    const std::uint64_t flows = configuration.flows.size();
    const std::uint64_t needed = flows * descriptorsOfFlow + descriptorsBesides;
    if (hardLimit >= needed) {
        return {};
    }
    return {
        "the hard limit on descriptors is " + std::to_string(hardLimit) + ", but " +
        countOf(flows, "flow") + (flows == 1 ? " needs " : " need ") + std::to_string(needed) +
        ": datagrams of flows beyond the limit will be dropped; set LimitNOFILE= of the service "
        "or ulimit -Hn to at least that"};
}

std::vector<std::string> bufferWarnings(const BufferLimits& limits) {
    std::vector<std::string> warnings;
    warnOfBuffer("rmem_max", limits.receive, receiveBuffer, warnings);
    warnOfBuffer("wmem_max", limits.send, sendBuffer, warnings);
    return warnings;
}

std::vector<std::string> portWarnings(const Configuration& configuration, const PortRange& range) {
    // Each address family has its own ports.
    std::uint64_t ipv4 = 0;
    std::uint64_t ipv6 = 0;
    for (const auto& [label, flow] : configuration.flows) {
        if (!flow.source) {
            ++(isIPv6(flow.upstream.host) ? ipv6 : ipv4);
        }
    }
    const std::uint64_t needed = std::max(ipv4, ipv6);
    const std::uint64_t ports = range.last < range.first ? 0 : range.last - range.first + 1;
    if (needed <= ports) {
        return {};
    }
    return {"net.ipv4.ip_local_port_range has " + std::to_string(ports) + " ports, but " +
            countOf(needed, "flow") +
            " without a source need one each: datagrams of flows beyond the limit will be dropped; "
            "run sysctl -w net.ipv4.ip_local_port_range=\"1024 65535\", or set source in flows"};
}

std::vector<std::string> limitWarnings(const Configuration& configuration) {
    std::vector<std::string> warnings = bufferWarnings(
        {readNumber("/proc/sys/net/core/rmem_max"), readNumber("/proc/sys/net/core/wmem_max")});
    if (const std::optional<PortRange> range = readPortRange()) {
        std::ranges::move(portWarnings(configuration, *range), std::back_inserter(warnings));
    }
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        for (std::string& warning : descriptorWarnings(configuration, limit.rlim_max)) {
            warnings.push_back(std::move(warning));
        }
    }
    return warnings;
}

void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        // On failure the old limit remains, and the forwarder logs each datagram lost to it.
        static_cast<void>(setrlimit(RLIMIT_NOFILE, &limit));
    }
}

}  // namespace vesk::controller
