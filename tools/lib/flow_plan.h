// What the bench programs agree on about each flow: its labels and keys, made from a seed by the
// traffic generator and handed to the forwarding program as command lines.
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
    std::string source;  // where the forwarder sends from; empty leaves it to the forwarder
    std::uint16_t sourcePort = 0;
};

/// Each flow with a source has a port of its own, up from the first one; below those that the
/// kernel gives out by itself.
inline constexpr std::uint16_t firstSourcePort = 10000;
inline constexpr std::size_t mostSources = 32768 - firstSourcePort;

struct FlowPlanOptions {
    std::size_t flows = 1;
    std::uint32_t labelBase = 0x10000;
    std::vector<Algorithm> algorithms = {Algorithm::sha256};  // taken in turn by the flows
    std::uint64_t seed = 1;
    std::uint16_t upPort = 0;
    std::string source;      // of all flows; empty for none
    bool unchanged = false;  // for a forwarder that passes datagrams on as they are
};

std::vector<FlowPlan> makeFlowPlans(const FlowPlanOptions& options);

/// Lower-case hex digits.
std::string toHex(const std::vector<std::byte>& bytes);

std::string setCommand(const FlowPlan& plan);
std::string startCommand(const std::string& address, std::uint16_t port);

/// Reading the two commands back, for the loops that stand in for the forwarder. They know exactly
/// the attributes that the functions above write; anything else is a std::logic_error.
std::optional<FlowPlan> parseSetCommand(std::string_view line);
std::optional<std::uint16_t> parseStartCommand(std::string_view line);

}  // namespace vesk::bench
