// When something is to be done next. Used by service/instance and service/supervisor, on the main
// thread.
#pragma once

#include <chrono>
#include <optional>
#include <vector>

namespace vesk::controller {

/// None if nothing is to be done.
using Deadline = std::optional<std::chrono::steady_clock::time_point>;

/// Whether it has passed; it is none then.
inline bool due(Deadline& deadline) {
    if (!deadline || *deadline > std::chrono::steady_clock::now()) {
        return false;
    }
    deadline.reset();
    return true;
}

/// None if all are none.
inline Deadline nearestOf(const std::vector<Deadline>& deadlines) {
    Deadline nearest;
    for (const Deadline& deadline : deadlines) {
        if (deadline && (!nearest || *deadline < *nearest)) {
            nearest = deadline;
        }
    }
    return nearest;
}

}  // namespace vesk::controller
