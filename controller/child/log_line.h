// A line of the forwarder's log, told apart by its level. Called for each line that it writes; the
// levels are those of the controller's own log, too.
#pragma once

#include <string>
#include <string_view>

namespace vesk::controller {

/// `none` is a line without a level, which the forwarder writes at every level.
enum class LogLevel { none, error, warn, info, debug, trace };

struct LogLine {
    LogLevel level = LogLevel::none;
    std::string text;  ///< behind the level and its blank
};

LogLine classify(std::string_view line);

/// "error" to "trace"; "" for none.
std::string_view nameOf(LogLevel level);

/// The level of that name; none for any other text.
LogLevel levelNamed(std::string_view name);

}  // namespace vesk::controller
