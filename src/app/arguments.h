// The process's positional arguments. Called once, on the main thread.
#pragma once

#include <chrono>
#include <optional>
#include <span>

#include "tasks/flow_cleanup.h"

namespace vesk {

struct Arguments {
    /// 1 or 2.
    int framingVersion = 2;
    std::chrono::nanoseconds cleanUpInterval = std::chrono::seconds(600);
    CleanUpSwitches cleanUp;
};

/// Reads what follows the program's name; what is not given keeps its default, what follows the
/// fourth is ignored. Nothing, after logging, where one makes no sense.
std::optional<Arguments> parseArguments(std::span<const char* const> texts);

}  // namespace vesk
