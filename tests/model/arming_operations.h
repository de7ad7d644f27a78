// Combines the model's steps into operations that a test can make the forwarder execute: a test can
// pause the threads where they wait and around a receive call, but not between any two steps.
//
// Where the model allows more than the forwarder does, the operations follow the forwarder: a
// worker that notices removed endpoints sends its replies, arms the drained sockets and releases
// all its endpoints before it continues.
#pragma once

#include <array>
#include <vector>

#include "arming_model.h"
#include "operation.h"

namespace vesk::model {

struct Situation {
    State state;
    /// Whether endpoints were removed since the worker checked last.
    std::array<bool, 2> removalUnseen{};
};

/// A possible operation and the resulting state of the model.
struct Outgoing {
    Operation operation;
    Situation then;
};

std::vector<Outgoing> operationsFrom(const Situation& situation, const Rules& rules,
                                     const Bounds& bounds);

}  // namespace vesk::model
