#include "service/log_output.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <utility>

#include "service/plural_text.h"

namespace vesk::controller {

namespace {

constexpr std::size_t maxBacklog = std::size_t{8} << 20U;
constexpr std::chrono::seconds lastChance{2};

/// The syslog priority of each level, in the order of LogLevel.
constexpr std::array<std::string_view, 6> journalPrefixes{"", "<3>", "<4>", "<6>", "<7>", "<7>"};

int millisecondsUntil(std::chrono::steady_clock::time_point time) {
    const auto left = time - std::chrono::steady_clock::now();
    return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
}

}  // namespace

LogForm logFormOf(int fd) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no thread changes the environment.
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    if (stream == nullptr || fstat(fd, &status) != 0) {
        return LogForm::words;
    }
    const std::string own = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    return own == stream ? LogForm::journal : LogForm::words;
}

std::string formatLine(LogForm form, LogLevel level, std::string_view text) {
    std::string line;
    if (form == LogForm::journal) {
        line = journalPrefixes.at(static_cast<std::size_t>(level));
    } else if (level != LogLevel::none) {
        line.append(nameOf(level)).append(1, ' ');
    }
    return line.append(text);
}

void LogOutput::write(LogLevel level, std::string_view text) {
    if (lines_.size() > maxBacklog) {
        ++lost_;
        return;
    }
    if (lost_ > 0 && !failing_) {
        const std::size_t lost = std::exchange(lost_, 0);
        say(LogLevel::warn, countOf(lost, "line") + (lost == 1 ? " was" : " were") +
                                " lost: the log was not read or could not be written");
    }
    lines_.add(formatLine(form_, level, text));
}

void LogOutput::say(LogLevel level, std::string_view text) {
    write(level, "controller: " + std::string(text));
}

void LogOutput::passOn(const LogLine& line) {
    if (!limited_) {
        write(line.level, line.text);
        return;
    }
    const LogLimit::Verdict verdict = limit_.take(line, LogLimit::Clock::now());
    if (verdict.before) {
        tell(*verdict.before);
    }
    if (verdict.pass) {
        write(line.level, line.text);
    }
}

/// At the level of the lines, so that a search for them also finds their count.
void LogOutput::tell(const LeftOut& leftOut) {
    say(leftOut.level == LogLevel::none ? LogLevel::warn : leftOut.level, describe(leftOut));
}

bool LogOutput::writable(int milliseconds) const {
    pollfd watched{fd_, POLLOUT, 0};
    return poll(&watched, 1, milliseconds) == 1;
}

/// The descriptor is shared with other processes, so it stays blocking. If poll(2) reports it as
/// writable, a pipe or socket takes PIPE_BUF bytes without blocking.
bool LogOutput::writePiece() {
    const std::string_view piece = lines_.front(PIPE_BUF);
    const ssize_t written = ::write(fd_, piece.data(), piece.size());
    if (written >= 0) {
        lines_.drop(static_cast<std::size_t>(written));
        failing_ = false;
        return true;
    }
    if (errno != EINTR && errno != EAGAIN) {
        // Nobody reads the log, or the disk is full. Forwarding continues without the log.
        lost_ += lines_.count();
        failing_ = true;
        lines_.clear();
    }
    return false;
}

void LogOutput::flush() {
    for (const LeftOut& leftOut : limit_.dueCounts(LogLimit::Clock::now())) {
        tell(leftOut);
    }
    while (pending() && writable(0) && writePiece()) {
    }
}

void LogOutput::finish() {
    for (const LeftOut& leftOut : limit_.allCounts()) {
        tell(leftOut);
    }
    const auto until = std::chrono::steady_clock::now() + lastChance;
    int left = millisecondsUntil(until);
    while (pending() && left > 0 && writable(left) && writePiece()) {
        left = millisecondsUntil(until);
    }
}

}  // namespace vesk::controller
