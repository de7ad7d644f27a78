#include "child/answer_watch.h"

namespace vesk::controller {

namespace {

constexpr std::chrono::seconds greatestDelay{1};

}  // namespace

AnswerWatch::Verdict AnswerWatch::judge(Clock::time_point now, bool outstanding,
                                        Clock::duration patience) {
    if (now < due(patience)) {
        return Verdict::waiting;
    }
    if (!outstanding) {
        return Verdict::ask;
    }
    if (now - due(patience) > greatestDelay) {
        since_ = now;
        return Verdict::waiting;
    }
    return Verdict::hung;
}

}  // namespace vesk::controller
