// When a folder has to be looked at: a moment after its last event, or after a while without one.
// Used by folder_watch.
#pragma once

#include <algorithm>
#include <chrono>
#include <optional>

namespace vesk::controller {

class ChangeTimer {
 public:
    using Clock = std::chrono::steady_clock;

    /// Events less than this apart are one change: files are written in several steps, and several
    /// files one after the other.
    static constexpr std::chrono::milliseconds quiet{100};
    /// Events that do not end are looked at after this time.
    static constexpr std::chrono::milliseconds longest{1000};
    /// Some file systems have no events.
    static constexpr std::chrono::seconds period{10};
    /// Without events, a look after this time is thorough.
    static constexpr std::chrono::seconds thoroughPeriod{60};

    explicit ChangeTimer(Clock::time_point now) : dueAt_(now + period), thoroughAt_(now) {}

    void event(Clock::time_point now) {
        first_ = first_.value_or(now);
        dueAt_ = std::min(now + quiet, *first_ + longest);
    }

    /// The folder is looked at now. True if the look has to be thorough.
    bool look(Clock::time_point now) {
        const bool thorough = first_ || now >= thoroughAt_;
        first_.reset();
        dueAt_ = now + period;
        thoroughAt_ = thorough ? now + thoroughPeriod : thoroughAt_;
        return thorough;
    }

    Clock::time_point dueAt() const { return dueAt_; }

 private:
    std::optional<Clock::time_point> first_;  // event since the last look
    Clock::time_point dueAt_;
    Clock::time_point thoroughAt_;
};

}  // namespace vesk::controller
