#include "log/log.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace vesk {

namespace {

struct NamedLevel {
    std::string_view name;
    LogLevel level;
};

constexpr std::array<NamedLevel, 5> namedLevels{{{"error", LogLevel::error},
                                                 {"warn", LogLevel::warn},
                                                 {"info", LogLevel::info},
                                                 {"debug", LogLevel::debug},
                                                 {"trace", LogLevel::trace}}};

/// The calling thread's innermost delay. It cannot be an argument, since a delay covers calls that
/// have no parameter for it.
thread_local LogDelay* innermostDelay = nullptr;

void writeNow(std::string_view text) {
    if (!text.empty() && std::fwrite(text.data(), text.size(), 1, stdout) == 1) {
        // Flushed, since the reader waits for whole lines. A failure is ignored: the reader may
        // have closed the pipe.
        static_cast<void>(std::fflush(stdout));
    }
}

}  // namespace

namespace detail {
std::atomic<int> currentLogLevel{static_cast<int>(LogLevel::info)};
}  // namespace detail

std::string_view logLevelName(LogLevel level) {
    return namedLevels.at(static_cast<std::size_t>(level) - 1).name;
}

bool setLogLevelByName(std::string_view name) {
    const auto* const row = std::find_if(namedLevels.begin(), namedLevels.end(),
                                         [name](const NamedLevel& it) { return it.name == name; });
    if (row == namedLevels.end()) {
        return false;
    }
    detail::currentLogLevel.store(static_cast<int>(row->level), std::memory_order_relaxed);
    return true;
}

void writeToStandardOutput(std::string_view text) {
    if (innermostDelay != nullptr) {
        innermostDelay->lines_.emplace_back(text);
    } else {
        writeNow(text);
    }
}

LogDelay::LogDelay() : outer_(std::exchange(innermostDelay, this)) {}

LogDelay::~LogDelay() {
    innermostDelay = outer_;
    for (const std::string& line : lines_) {
        writeToStandardOutput(line);
    }
}

void emitLine(std::string_view levelName, std::string_view message) {
    std::string line;
    line.reserve(levelName.size() + message.size() + 2);
    line.append(levelName).append(1, ' ').append(message).append(1, '\n');
    writeToStandardOutput(line);
}

void emitLine(std::string_view levelName, const std::ostringstream& message) {
    emitLine(levelName, message.view());
}

}  // namespace vesk
