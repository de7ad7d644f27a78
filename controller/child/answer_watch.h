// How long the forwarder has been silent, and what that means: a fence that is outstanding without
// a line from it for long enough tells that it hangs. Held by child/forwarder_session, judged by
// service/supervisor.
#pragma once

#include <chrono>

namespace vesk::controller {

class AnswerWatch {
 public:
    using Clock = std::chrono::steady_clock;

    enum class Verdict {
        waiting,  ///< nothing is due
        ask,      ///< silent, but it owes no answer: a fence has to be sent
        hung,     ///< silent for the whole time although it owes one
    };

    explicit AnswerWatch(Clock::time_point now) : since_(now) {}

    /// A line was read, or a fence was sent while none was outstanding.
    void note(Clock::time_point now) { since_ = now; }

    /// When the next verdict is due.
    Clock::time_point due(Clock::duration patience) const { return since_ + patience; }

    /// `outstanding`: whether a fence is. What there is to read has to be read before. A verdict
    /// that is asked for long after it was due tells that the controller itself stood still, and
    /// the forwarder may have, too: the time begins again.
    Verdict judge(Clock::time_point now, bool outstanding, Clock::duration patience);

 private:
    Clock::time_point since_;
};

}  // namespace vesk::controller
