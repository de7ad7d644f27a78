// The labels and keys of each flow. The traffic generator makes them from a seed and passes them to
// the forwarding program as commands.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lib/authentication.h"

namespace vesk::bench {

struct FlowPlan {
    std::uint32_t label = 0;
    std::uint32_t upLabel = 0;
    std::uint32_t downLabel = 0;
    HmacKey downIn;
    HmacKey downOut;
    HmacKey upIn;
    HmacKey upOut;
    std::uint16_t upPort = 0;
    std::string source;  // address from which the forwarder sends; empty: it chooses
    std::uint16_t sourcePort = 0;
};

/// Flows with a source have consecutive ports from this one on, all below the kernel's usual
/// ephemeral ports.
inline constexpr std::uint16_t firstSourcePort = 10000;
inline constexpr std::size_t mostSources = 32768 - firstSourcePort;

/// The labels of peers are below this one; those of the other directions follow.
inline constexpr std::uint32_t firstForeignLabel = 0x20000000;

struct FlowPlanOptions {
    std::size_t flows = 1;
    std::uint32_t labelBase = 0x10000;
    std::uint32_t labelStep = 1;  // from the label of a flow to that of the next
    std::vector<Algorithm> algorithms = {Algorithm::sha256};  // used by the flows in turn
    std::uint64_t seed = 1;
    std::uint16_t upPort = 0;
    std::string source;      // of all flows; empty for none
    bool unchanged = false;  // for a forwarder that does not change datagrams
};

std::vector<FlowPlan> makeFlowPlans(const FlowPlanOptions& options);

/// Lower-case hex digits.
std::string toHex(const std::vector<std::byte>& bytes);

std::string setCommand(const FlowPlan& plan);
std::string startCommand(const std::string& address, std::uint16_t port);

/// Parse the two commands, for the programs that replace the forwarder in measurements; none for
/// any other line. Throw std::logic_error if a value is missing or invalid. The source address and
/// attributes that the functions above do not write are ignored.
std::optional<FlowPlan> parseSetCommand(std::string_view line);
std::optional<std::uint16_t> parseStartCommand(std::string_view line);

}  // namespace vesk::bench
