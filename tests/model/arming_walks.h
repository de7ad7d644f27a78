// Sequences of operations that together try every operation in every situation that the model can
// reach. A search finds the situations. The sequences are the same in every run.
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
        /// The situation to which it leads.
        std::uint32_t to;
        bool walked = false;
    };

    /// Searches all situations within the bounds.
    ArmingWalks(const Rules& rules, const Bounds& bounds);

    const Situation& situation(std::uint32_t number) const { return places_.at(number).situation; }
    std::size_t situations() const { return places_.size(); }
    std::size_t steps() const;

    /// A sequence from the first situation that takes steps which no earlier sequence took; empty
    /// when all have been taken.
    std::vector<Step> next();

 private:
    struct Place {
        Situation situation;
        std::uint32_t cameFrom;
        std::vector<Step> steps;
    };

    std::vector<Step> shortestTo(std::uint32_t place) const;

    std::vector<Place> places_;
    /// No earlier place has an untried step.
    std::uint32_t firstOpen_ = 0;
};

}  // namespace vesk::model
