// A line of the forwarder's log, split into level and text. Called by child/output_interpreter for
// each line. The controller's own log has the same levels.
#pragma once

#include <string>
#include <string_view>

namespace vesk::controller {

/// `none` is a line without a level, which the forwarder writes at every level.
enum class LogLevel { none, error, warn, info, debug, trace };

struct LogLine {
    LogLevel level = LogLevel::none;
    std::string text;  ///< after the level and a blank
};

LogLine classify(std::string_view line);

/// "error" to "trace"; "" for none.
std::string_view nameOf(LogLevel level);

/// The level of that name; none for any other text.
LogLevel levelNamed(std::string_view name);

}  // namespace vesk::controller
