// The controller's log on standard error: its own messages and the lines of the forwarder. Writing
// never waits for the reader, because the forwarder's output must be read even if nobody reads this
// log. Called by service/supervisor, service/instance and main.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "child/log_line.h"
#include "child/pending_lines.h"
#include "service/log_limit.h"

namespace vesk::controller {

/// How a level is written: as its name, or as the number in angle brackets that the journal reads.
enum class LogForm { words, journal };

/// `journal` if the environment variable JOURNAL_STREAM identifies the file of `fd`.
LogForm logFormOf(int fd);

std::string formatLine(LogForm form, LogLevel level, std::string_view text);

class LogOutput {
 public:
    LogOutput(int fd, LogForm form) : fd_(fd), form_(form) {}

    /// Writes one line, or several separated by newlines.
    void write(LogLevel level, std::string_view text);

    /// Writes a message of the controller, with the prefix "controller: ".
    void say(LogLevel level, std::string_view text);

    /// Writes a line of the forwarder, unless there were too many of its kind. Must be called with
    /// each line: those left out are counted, and the count is logged.
    void passOn(const LogLine& line);

    /// Turns the limit on or off; it is on at the beginning.
    void setLimited(bool limited) { limited_ = limited; }

    /// When flush() must be called to log a count; none if no count is pending.
    std::optional<LogLimit::Clock::time_point> countDueAt() const { return limit_.dueAt(); }

    /// Whether there are lines that have not been written yet.
    bool pending() const { return !lines_.empty(); }
    int descriptor() const { return fd_; }

    /// Logs the counts that are due, and writes as much as is possible without waiting.
    void flush();

    /// Logs all counts, and writes for at most two more seconds.
    void finish();

 private:
    void tell(const LeftOut& leftOut);
    bool writable(int milliseconds) const;
    bool writePiece();

    int fd_;
    LogForm form_;
    PendingLines lines_;
    std::size_t lost_ = 0;  // lines that were not written and not reported as lost yet
    bool failing_ = false;  // the last write failed
    LogLimit limit_;
    bool limited_ = true;
};

}  // namespace vesk::controller
