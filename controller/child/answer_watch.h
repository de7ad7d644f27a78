// Detects a forwarder that hangs: a fence is outstanding, and no line has arrived for the time
// allowed. Kept by child/forwarder_session, queried by service/instance.
#pragma once

#include <chrono>

namespace vesk::controller {

class AnswerWatch {
 public:
    using Clock = std::chrono::steady_clock;

    enum class Verdict {
        waiting,  ///< nothing is due
        ask,      ///< no output, but no fence is outstanding: one must be sent
        hung,     ///< no output for the whole time although a fence is outstanding
    };

    explicit AnswerWatch(Clock::time_point now) : since_(now) {}

    /// A line was read, or a fence was sent while none was outstanding.
    void note(Clock::time_point now) { since_ = now; }

    /// When the next verdict is due.
    Clock::time_point due(Clock::duration patience) const { return since_ + patience; }

    /// `outstanding`: whether a fence is outstanding. All output must have been read before. If the
    /// call comes long after it was due, the controller itself was stopped, and perhaps the
    /// forwarder too, so the time starts again.
    Verdict judge(Clock::time_point now, bool outstanding, Clock::duration patience);

 private:
    Clock::time_point since_;
};

}  // namespace vesk::controller
