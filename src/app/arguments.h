// Parses the positional arguments of the process. Called once, on the main thread.
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

/// Parses the arguments after the program's name. Missing ones keep their defaults; those after the
/// fourth are ignored. None, after logging, if an argument is invalid.
std::optional<Arguments> parseArguments(std::span<const char* const> texts);

}  // namespace vesk
