// Warnings about limits of the host that are too low for the configuration. Called by main at the
// start and for --check, and by service/supervisor at each reload.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config/configuration.h"

namespace vesk::controller {

/// The kernel's limits for socket buffers in bytes; none if they cannot be read, as in a network
/// namespace.
struct BufferLimits {
    std::optional<std::uint64_t> receive;  ///< net.core.rmem_max
    std::optional<std::uint64_t> send;     ///< net.core.wmem_max
};

/// The ephemeral ports, both ends included.
struct PortRange {
    std::uint32_t first = 0;
    std::uint32_t last = 0;
};

/// The host's, if it can be read.
std::optional<PortRange> readPortRange();

/// One warning for each limit that is too low, with its remedy.
std::vector<std::string> descriptorWarnings(const Configuration& configuration,
                                            std::uint64_t hardLimit);
std::vector<std::string> bufferWarnings(const BufferLimits& limits);
std::vector<std::string> portWarnings(const Configuration& configuration, const PortRange& range);

/// All warnings for this host.
std::vector<std::string> limitWarnings(const Configuration& configuration);

/// Raises this process's soft limit on descriptors to the hard limit; children inherit it.
void raiseDescriptorLimit();

}  // namespace vesk::controller
