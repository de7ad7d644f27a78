// Limits of the host that the forwarder would run into, told before it does. Called by
// service/supervisor at the start and at each reload, and by main for --check.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config/configuration.h"

namespace vesk::controller {

/// The kernel's limits for socket buffers in bytes; none where they cannot be read, as in a network
/// namespace.
struct BufferLimits {
    std::optional<std::uint64_t> receive;  ///< net.core.rmem_max
    std::optional<std::uint64_t> send;     ///< net.core.wmem_max
};

/// Ports that the kernel gives to sockets without one of their own, both ends included.
struct PortRange {
    std::uint32_t first = 0;
    std::uint32_t last = 0;
};

/// What is too low for the configuration, each with its remedy.
std::vector<std::string> descriptorWarnings(const Configuration& configuration,
                                            std::uint64_t hardLimit);
std::vector<std::string> bufferWarnings(const BufferLimits& limits);
std::vector<std::string> portWarnings(const Configuration& configuration, const PortRange& range);

/// All of them, for this host.
std::vector<std::string> limitWarnings(const Configuration& configuration);

/// Raises this process's soft limit of descriptors to the hard one; children inherit it.
void raiseDescriptorLimit();

}  // namespace vesk::controller
