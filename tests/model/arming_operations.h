// The model's steps put together to operations that a test can make the forwarder carry out: it can
// stop the threads where they wait and around a receive call, but not between any two steps.
//
// Two things differ in the forwarder, each allowed by the model: a worker keeps an endpoint that it
// serves again until its next call, so the model's worker lets go only then; and a worker that sees
// that endpoints were removed arms what is drained before it goes on.
#pragma once

#include <array>
#include <vector>

#include "arming_model.h"
#include "operation.h"

namespace vesk::model {

struct Situation {
    State state;
    /// Whether endpoints were removed since the worker looked last.
    std::array<bool, 2> removalUnseen{};
};

/// An operation that can be carried out, and what the model makes of it.
struct Outgoing {
    Operation operation;
    Situation then;
};

std::vector<Outgoing> operationsFrom(const Situation& situation, const Rules& rules,
                                     const Bounds& bounds);

}  // namespace vesk::model
