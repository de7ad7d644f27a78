// The controller's log on standard error: its own words and those of the forwarder, in the form
// that the reader understands. Writing never waits for the reader: the forwarder's output has to be
// read whatever comes of its copy. Called by service/supervisor and main.
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

/// How a level is told: by its name, or by the digits in angle brackets that the journal reads.
enum class LogForm { words, journal };

/// `journal` where the environment's JOURNAL_STREAM names the file behind `fd`.
LogForm logFormOf(int fd);

std::string formatLine(LogForm form, LogLevel level, std::string_view text);

class LogOutput {
 public:
    LogOutput(int fd, LogForm form) : fd_(fd), form_(form) {}

    /// A line, or several that newlines separate.
    void write(LogLevel level, std::string_view text);

    /// The controller's own words, which say whose they are.
    void say(LogLevel level, std::string_view text);

    /// A line of the forwarder, unless there were too many of its kind. To be called with each of
    /// its lines: what is left out is counted, and the count is told.
    void passOn(const LogLine& line);

    /// Whether there can be too many lines of a kind, as there can unless told otherwise.
    void setLimited(bool limited) { limited_ = limited; }

    /// When flush() has to be called for a count that is to be told, if at all.
    std::optional<LogLimit::Clock::time_point> countDueAt() const { return limit_.dueAt(); }

    /// Whether lines wait for the descriptor to take them.
    bool pending() const { return !lines_.empty(); }
    int descriptor() const { return fd_; }

    /// Tells the counts that are due, and writes as much as the descriptor takes without waiting.
    void flush();

    /// Tells all counts and gives the reader a last chance: two seconds, however slowly it reads.
    void finish();

 private:
    void tell(const LeftOut& leftOut);
    bool writable(int milliseconds) const;
    bool writePiece();

    int fd_;
    LogForm form_;
    PendingLines lines_;
    std::size_t lost_ = 0;  // lines that were neither written nor told of
    bool failing_ = false;  // the descriptor did not take the last piece
    LogLimit limit_;
    bool limited_ = true;
};

}  // namespace vesk::controller
