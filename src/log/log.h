// The process's one log: text lines on standard output, which the controlling service reads.
//
// Any thread may call anything here. Each line leaves in a single fwrite, so lines of different
// threads never interleave; their order between threads is arbitrary.
#pragma once

#include <atomic>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace vesk {

/// Severity of a message; its number is what the current level is compared with.
enum class LogLevel : int { error = 1, warn = 2, info = 3, debug = 4, trace = 5 };

namespace detail {
/// The process-wide verbosity. Written by the "log" command alone; readers need no order.
extern std::atomic<int> currentLogLevel;
}  // namespace detail

/// Whether a message of this level is written at present. One load and one comparison: callers on
/// the datapath ask before they compose anything.
inline bool logEnabled(LogLevel level) {
    return detail::currentLogLevel.load(std::memory_order_relaxed) > static_cast<int>(level) - 1;
}

/// The text printed at the start of each line of this level.
std::string_view logLevelName(LogLevel level);

/// Makes the level of this exact, case-sensitive name the current one. False, and no change, for
/// any other text.
bool setLogLevelByName(std::string_view name);

/// Writes one line, without any level test: the level name, a blank, the message and a newline.
/// A message that ends in a newline of its own is therefore followed by an empty line. A write
/// that fails is ignored.
void emitLine(std::string_view levelName, std::string_view message);
void emitLine(std::string_view levelName, const std::ostringstream& message);

/// Writes `text` to standard output as it is, in one piece, and flushes it.
void writeToStandardOutput(std::string_view text);

/// While it lives, what the calling thread logs is held back; it is written, line by line and in
/// order, when it goes. For a thread that holds something that others wait for, a lock or sockets
/// to be armed: whoever reads the log may keep a writer waiting for as long as it likes. Of two in
/// one thread the outer one decides.
class LogDelay {
 public:
    LogDelay();
    ~LogDelay();
    LogDelay(const LogDelay&) = delete;
    LogDelay& operator=(const LogDelay&) = delete;

    /// Whether anything is held back.
    bool holdsLines() const { return !lines_.empty(); }

 private:
    friend void writeToStandardOutput(std::string_view text);

    LogDelay* const outer_;
    std::vector<std::string> lines_;
};

/// Composes a message from its parts, as a stream would print them, and writes it, if its level
/// is enabled; otherwise composes nothing.
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
