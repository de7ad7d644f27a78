// The metrics of flows that change their label and keys. Used by metrics/exposition.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "metrics/families.h"

namespace vesk::controller {

/// A flow of the file that has a `next`.
struct RotationFigures {
    std::string name;  ///< of the flow
    std::uint32_t label = 0;
    std::uint32_t nextLabel = 0;
    std::chrono::system_clock::time_point since;  ///< when the controller found both in the file
    bool deleted = false;                         ///< the old label has been deleted
    std::uint64_t received = 0;      ///< datagrams from peers that passed the check, old label
    std::uint64_t nextReceived = 0;  ///< the same for the next label
};

/// Adds nothing if there are none.
void addRotations(Families& families, const std::vector<RotationFigures>& rotations);

}  // namespace vesk::controller
