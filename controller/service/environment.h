// Reads the variables with which the service manager addresses this process. Called by service/ on
// the main thread, before any other is started.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vesk::controller {

std::optional<std::string> variable(const char* name);

/// The variable as a number; none if it is not a positive one.
std::optional<std::int64_t> numberIn(const char* name);

}  // namespace vesk::controller
