// Keeps the forwarder's log from filling a disk: each datagram of a stranger may cause a line. Of
// the lines of a kind (see service/log_kind) 20 in a row are passed on, then one a second, and the
// others are counted. Called by service/log_output, which says the counts.
//
// Whoever counts something by the log does it before the limit.
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

/// Lines that were not passed on since the last time that this was told.
struct LeftOut {
    std::uint64_t lines = 0;
    LogLevel level = LogLevel::none;  ///< of the first of them
    std::string like;  ///< the first of them; empty where they have a label in common
};

/// "7 more lines like this were left out: TEXT".
std::string describe(const LeftOut& leftOut);

/// So many at once, and so many a second after that.
class LineBudget {
 public:
    using Clock = std::chrono::steady_clock;

    LineBudget(double most, double perSecond) : most_(most), perSecond_(perSecond), left_(most) {}

    /// Whether another line may be passed on at that time.
    bool has(Clock::time_point now) const { return leftAt(now) >= 1; }
    void spend(Clock::time_point now);

    /// Whether all of it is there, as if no line had ever been passed on.
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

    /// How many kinds are remembered; lines of further kinds share one.
    static constexpr std::size_t mostKinds = 8192;

    struct Verdict {
        bool pass = false;
        std::optional<LeftOut> before;  ///< to be told before the line
    };

    Verdict take(const LogLine& line, Clock::time_point now);

    /// When dueCounts() has to be asked, if at all.
    std::optional<Clock::time_point> dueAt() const { return dueAt_; }

    /// The counts of kinds that have been silent for a second.
    std::vector<LeftOut> dueCounts(Clock::time_point now);

    /// All counts that were not told yet.
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
    Kind otherKinds_;  // of which there were too many to be remembered
    LineBudget labelLines_{200, 200};
    LeftOut labelLinesLeftOut_;  // for want of a share in these
    std::optional<Clock::time_point> dueAt_;
    std::optional<Clock::time_point> forgotAt_;
};

}  // namespace vesk::controller
