// Reads the limit on descriptors from /proc/PID/limits. Called by kernel/kernel_reader; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace vesk::controller {

/// The soft limit on open files; none if its line is missing or damaged. "unlimited" is the
/// greatest number.
std::optional<std::uint64_t> parseOpenFilesLimit(std::string_view text);

}  // namespace vesk::controller
