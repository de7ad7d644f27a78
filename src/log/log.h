// The log of the process: text lines on standard output, which the controlling service reads.
//
// Any thread may call anything here. Each line is written by one fwrite, so lines of different
// threads are never mixed; their order is arbitrary.
#pragma once

#include <atomic>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace vesk {

/// Severity of a message. Its number is compared with the current level.
enum class LogLevel : int { error = 1, warn = 2, info = 3, debug = 4, trace = 5 };

namespace detail {
/// The current level of the process. Written only by the "log" command. Relaxed order suffices,
/// since no other data depends on it.
extern std::atomic<int> currentLogLevel;
}  // namespace detail

/// Whether messages of this level are written at present. It costs one load and one comparison, so
/// the datapath calls it before it composes a message.
inline bool logEnabled(LogLevel level) {
    return detail::currentLogLevel.load(std::memory_order_relaxed) > static_cast<int>(level) - 1;
}

/// The text printed at the start of each line of this level.
std::string_view logLevelName(LogLevel level);

/// Sets the current level by its exact, case-sensitive name. False, with the level unchanged, for
/// any other text.
bool setLogLevelByName(std::string_view name);

/// Writes one line, whatever the current level is: the level name, a blank, the message and a
/// newline. If the message itself ends in a newline, an empty line follows. A failed write is
/// ignored.
void emitLine(std::string_view levelName, std::string_view message);
void emitLine(std::string_view levelName, const std::ostringstream& message);

/// Writes `text` unchanged to standard output, in one piece, and flushes it. Under a LogDelay the
/// text is held back instead.
void writeToStandardOutput(std::string_view text);

/// While it exists, lines that the calling thread logs are held back; the destructor writes them in
/// order. For a thread that holds something that other threads wait for, such as a lock or sockets
/// to be armed: a write blocks for as long as the log's reader does not read. If delays are nested,
/// the outermost one writes.
class LogDelay {
 public:
    LogDelay();
    ~LogDelay();
    LogDelay(const LogDelay&) = delete;
    LogDelay& operator=(const LogDelay&) = delete;

    /// Whether lines are held back.
    bool holdsLines() const { return !lines_.empty(); }

 private:
    friend void writeToStandardOutput(std::string_view text);

    LogDelay* const outer_;
    std::vector<std::string> lines_;
};

/// Composes a message from its parts, as a stream prints them, and writes it. Does nothing if the
/// level is not enabled.
template <typename... Parts>
void logMessage(LogLevel level, const Parts&... parts) {
    if (!logEnabled(level)) {
        return;
    }
    std::ostringstream message;
    (message << ... << parts);
    emitLine(logLevelName(level), message);
}

template <typename... Parts>
void logError(const Parts&... parts) {
    logMessage(LogLevel::error, parts...);
}

template <typename... Parts>
void logWarn(const Parts&... parts) {
    logMessage(LogLevel::warn, parts...);
}

template <typename... Parts>
void logInfo(const Parts&... parts) {
    logMessage(LogLevel::info, parts...);
}

template <typename... Parts>
void logDebug(const Parts&... parts) {
    logMessage(LogLevel::debug, parts...);
}

}  // namespace vesk
