// The commands for the kernel's packet filter that spread one public port over several instances:
// text only, nothing is run. Called by service/supervisor, which runs it with
// steering/packet_filter, and by main for --print-nft and --check.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "config/configuration.h"

namespace vesk::controller {

/// Where datagrams to the public port go.
struct SteeringPlan {
    std::string host;  ///< numeric; a wildcard address means all addresses of this host
    std::uint16_t publicPort = 0;
    std::size_t labelOffset = 0;       ///< of the label in a datagram, in bytes
    std::vector<std::uint16_t> ports;  ///< by instance; their number is a power of two
    std::uint16_t firstPort = 0;       ///< of the range from which the instances' ports are taken
    std::uint16_t lastPort = 0;
};

/// The plan of a configuration that is steered, with these ports of its instances.
SteeringPlan steeringPlan(const Configuration& configuration,
                          const std::vector<std::uint16_t>& ports);

/// One transaction that creates the table. A table that a crash has left behind is replaced.
std::string steeringRules(const SteeringPlan& plan);

/// One transaction after which datagrams go to these ports, by instance. Entries that somebody has
/// removed are added again.
std::string steeringSwap(std::uint16_t publicPort, const std::vector<std::uint16_t>& ports);

/// Added to a swap: the datagrams of these labels still go to this port. One label after the other
/// follows the swap with steeringFollow(). A label is added to a set for that: the transaction that
/// removes an element from a map lets its sender wait some 10 ms for the other processors. Empty
/// without labels.
std::string steeringStay(const SteeringPlan& plan, std::uint16_t port,
                         const std::vector<std::uint32_t>& labels);
std::string steeringFollow(std::uint16_t publicPort, std::uint32_t label);

/// Removes what steeringStay() and steeringFollow() have added.
std::string steeringStayEnd(std::uint16_t publicPort);
/// Lists the map of the instances' ports, to be read with steering/steering_map.
std::string steeringMapQuery(std::uint16_t publicPort);

/// Tells rules from others that differ in anything but the ports of the instances: a comment of the
/// map.
std::string steeringMark(const SteeringPlan& plan);

/// Removes the table, if it exists.
std::string steeringRemoval(std::uint16_t publicPort);

/// Lists the counters of the table, to be read with steering/steering_counters.
std::string steeringCountersQuery(std::uint16_t publicPort);

}  // namespace vesk::controller
