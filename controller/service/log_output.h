// The controller's log on standard error: its own words and those of the forwarder, in the form
// that the reader understands. Writing never waits for the reader: the forwarder's output has to be
// read whatever comes of its copy. Called by service/supervisor and main.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "child/log_line.h"
#include "child/pending_lines.h"

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

    /// Whether lines wait for the descriptor to take them.
    bool pending() const { return !lines_.empty(); }
    int descriptor() const { return fd_; }

    /// Writes as much as the descriptor takes without waiting.
    void flush();

    /// Gives the reader a last chance: two seconds, however slowly it reads.
    void finish();

 private:
    bool writable(int milliseconds) const;
    bool writePiece();

    int fd_;
    LogForm form_;
    PendingLines lines_;
    std::size_t lost_ = 0;  // lines since the backlog was full
};

}  // namespace vesk::controller
