// Reads the index and the number of the lateral instances, which the file gives itself or takes
// from the controller's environment or the host name. Called by config/lateral_reader.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "config/table_reader.h"

namespace vesk::controller {

struct LateralNumber {
    std::string key;        ///< the one that gives it, for problems: "index" or "index_from"
    bool known = false;     ///< false after a problem was added
    std::uint32_t value{};  ///< 0 unless known
};

/// From "index" or "index_from".
LateralNumber readLateralIndex(TableReader& table);
/// From "instances" or "instances_from".
LateralNumber readLateralInstances(TableReader& table);

/// The digits after the last '-' of the host name without its domain; empty if it does not end with
/// '-' and digits.
std::string_view ordinalOf(std::string_view hostName);

}  // namespace vesk::controller
