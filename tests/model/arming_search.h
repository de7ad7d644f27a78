// Visits every state that the model can come to.
#pragma once

#include <cstddef>
#include <string>

#include "arming_model.h"

namespace vesk::model {

struct Verdict {
    /// What is wrong with the state that the trace leads to; empty where nothing ever is.
    std::string complaint;
    /// The steps to it, one a line; as few as there can be.
    std::string trace;
    std::size_t states = 0;
};

/// Looks in every reachable state whether something has happened that must not, whether each live
/// flow is covered, and whether a state without further steps is one of rest; and then whether from
/// every state the threads can come to rest without help from outside.
Verdict search(const Rules& rules, const Bounds& bounds);

}  // namespace vesk::model
