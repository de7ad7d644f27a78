// Limits the forwarder's log so that it cannot fill a disk: each datagram of an unknown sender may
// cause a line. Of the lines of one kind (see service/log_kind) 20 in a row are passed on, then one
// per second; the others are counted. Called by service/log_output, which logs the counts.
//
// Code that counts log lines must do so before the limit.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "child/log_line.h"
#include "service/log_kind.h"

namespace vesk::controller {

/// Lines that were not passed on since the last count was logged.
struct LeftOut {
    std::uint64_t lines = 0;
    LogLevel level = LogLevel::none;  ///< of the first of these lines
    std::string like;                 ///< the first of these lines; empty for lines of many labels
};

/// "7 more lines like this were left out: TEXT".
std::string describe(const LeftOut& leftOut);

/// Allows `most` lines at once, and `perSecond` after that.
class LineBudget {
 public:
    using Clock = std::chrono::steady_clock;

    LineBudget(double most, double perSecond) : most_(most), perSecond_(perSecond), left_(most) {}

    /// Whether another line may be passed on at time `now`.
    bool has(Clock::time_point now) const { return leftAt(now) >= 1; }
    void spend(Clock::time_point now);

    /// Whether the budget is as large as at the beginning.
    bool full(Clock::time_point now) const { return leftAt(now) >= most_; }

 private:
    double leftAt(Clock::time_point now) const;

    double most_;
    double perSecond_;
    double left_;
    std::optional<Clock::time_point> spentAt_;
};

/// Takes each line with the time at which it was read; times never go back.
class LogLimit {
 public:
    using Clock = LineBudget::Clock;

    /// The maximum number of kinds; lines of further kinds share one budget.
    static constexpr std::size_t mostKinds = 8192;

    struct Verdict {
        bool pass = false;
        std::optional<LeftOut> before;  ///< to be logged before the line
    };

    Verdict take(const LogLine& line, Clock::time_point now);

    /// When dueCounts() must be called; none if no count is pending.
    std::optional<Clock::time_point> dueAt() const { return dueAt_; }

    /// The counts of kinds without a line for a second.
    std::vector<LeftOut> dueCounts(Clock::time_point now);

    /// All counts that have not been logged yet.
    std::vector<LeftOut> allCounts();

    std::size_t kinds() const { return kinds_.size(); }

 private:
    struct Kind {
        LineBudget budget{20, 1};
        LeftOut leftOut;
        Clock::time_point lastSeen;
        bool namesLabel = false;
    };

    Kind* find(const LogKind& kind);
    Kind& remember(const LogKind& kind, Clock::time_point now);
    void forgetKindsAtRest(Clock::time_point now);
    void leaveOut(LeftOut& leftOut, const LogLine& line, bool showIt, Clock::time_point now);
    bool mayTell(const Kind& kind, Clock::time_point now);

    std::unordered_map<std::string, Kind> kinds_;
    Kind otherKinds_;  // shared by all kinds above `mostKinds`
    LineBudget labelLines_{200, 200};
    LeftOut labelLinesLeftOut_;  // lines left out because labelLines_ was used up
    std::optional<Clock::time_point> dueAt_;
    std::optional<Clock::time_point> forgotAt_;
};

}  // namespace vesk::controller
