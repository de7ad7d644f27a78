// The ports of the instances, from the packet filter's listing. Called by service/steering for
// rules that an earlier controller has left behind, on the main thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace vesk::controller {

/// Where the rules send the datagrams, by instance.
using SteeringMap = std::map<std::size_t, std::uint16_t>;

/// Reads the output of steeringMapQuery(). Empty if the map has another mark.
SteeringMap parseSteeringMap(std::string_view listing, const std::string& mark);

}  // namespace vesk::controller
