// Sequences of operations that together try every operation in every situation that the model can
// come to. A search finds the situations; the sequences are always the same ones.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "arming_operations.h"

namespace vesk::model {

class ArmingWalks {
 public:
    struct Step {
        Operation operation;
        /// Where it leads to.
        std::uint32_t to;
        bool walked = false;
    };

    /// Searches all situations within the bounds.
    ArmingWalks(const Rules& rules, const Bounds& bounds);

    const Situation& situation(std::uint32_t number) const { return places_.at(number).situation; }
    std::size_t situations() const { return places_.size(); }
    std::size_t steps() const;

    /// A sequence from the first situation on that takes steps which no earlier sequence took;
    /// empty when each was taken once.
    std::vector<Step> next();

 private:
    struct Place {
        Situation situation;
        std::uint32_t cameFrom;
        std::vector<Step> steps;
    };

    std::vector<Step> shortestTo(std::uint32_t place) const;

    std::vector<Place> places_;
    /// No earlier place has a step left that was not taken.
    std::uint32_t firstOpen_ = 0;
};

}  // namespace vesk::model
