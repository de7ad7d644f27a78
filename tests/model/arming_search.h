// Visits every state that the model can reach.
#pragma once

#include <cstddef>
#include <string>

#include "arming_model.h"

namespace vesk::model {

struct Verdict {
    /// The error in the state to which the trace leads; empty if there is none.
    std::string complaint;
    /// The shortest sequence of steps to it, one per line.
    std::string trace;
    std::size_t states = 0;
};

/// Checks in every reachable state that no error has occurred, that each existing flow will be read
/// or armed, and that a state without further steps is a state of rest. Then checks that the
/// threads can reach rest from every state without steps from outside.
Verdict search(const Rules& rules, const Bounds& bounds);

}  // namespace vesk::model
