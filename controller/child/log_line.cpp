#include "child/log_line.h"

#include <array>

namespace vesk::controller {

namespace {

constexpr std::array<std::string_view, 6> levelNames{"", "error", "warn", "info", "debug", "trace"};

}  // namespace

std::string_view nameOf(LogLevel level) {
    return levelNames.at(static_cast<std::size_t>(level));
}

LogLevel levelNamed(std::string_view name) {
    for (std::size_t i = 1; i < levelNames.size(); ++i) {
        if (levelNames.at(i) == name) {
            return static_cast<LogLevel>(i);
        }
    }
    return LogLevel::none;
}

LogLine classify(std::string_view line) {
    const std::size_t blank = line.find(' ');
    const LogLevel level =
        blank == std::string_view::npos ? LogLevel::none : levelNamed(line.substr(0, blank));
    if (level == LogLevel::none) {
        return {level, std::string(line)};
    }
    return {level, std::string(line.substr(blank + 1))};
}

}  // namespace vesk::controller
