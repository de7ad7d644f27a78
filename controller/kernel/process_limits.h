// The limit of descriptors in /proc/PID/limits. Called by kernel/kernel_reader; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace vesk::controller {

/// The soft limit of open files; none where the text has no such line or it is damaged.
/// "unlimited" is the greatest number there is.
std::optional<std::uint64_t> parseOpenFilesLimit(std::string_view text);

}  // namespace vesk::controller
