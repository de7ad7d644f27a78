// The process's positional arguments. Called once, on the main thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "tasks/flow_cleanup.h"

namespace vesk {

struct Arguments {
    /// 1 or 2.
    int framingVersion = 2;
    std::int64_t cleanUpIntervalNanoseconds = std::int64_t{600} * 1000000000;
    CleanUpSwitches cleanUp;
};

/// Reads what follows the program's name; what is not given keeps its default, what follows the
/// fourth is ignored. Nothing, after logging, where one makes no sense.
std::optional<Arguments> parseArguments(std::span<const char* const> texts);

}  // namespace vesk
