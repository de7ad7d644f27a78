// Start-up: the threads that run from the beginning to the end. Called once, on the main thread.
#pragma once

#include <memory>
#include <optional>

#include "app/arguments.h"

namespace vesk {

struct ForwarderContext;

/// The exit status that a step which failed asks for; it may be 0.
using StartFailure = std::optional<int>;

/// Starts the receive workers, the poll thread and the clean-up task, in this order. What was
/// started before a failure is left to the shut-down.
StartFailure startThreads(const Arguments& arguments,
                          const std::shared_ptr<ForwarderContext>& context);

}  // namespace vesk
