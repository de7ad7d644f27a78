// Starts the threads that run for the whole life of the process. Called once, on the main thread.
#pragma once

#include <memory>
#include <optional>

#include "app/arguments.h"

namespace vesk {

struct ForwarderContext;

/// None on success, else the exit status of the process, which may be 0.
using StartFailure = std::optional<int>;

/// Starts the receive workers, the poll thread and the clean-up task, in this order. After a
/// failure the caller stops the threads already started, by `shutDown`.
StartFailure startThreads(const Arguments& arguments,
                          const std::shared_ptr<ForwarderContext>& context);

}  // namespace vesk
