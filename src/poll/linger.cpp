#include "poll/linger.h"

#include <sched.h>

#include <ctime>

#include "base/timespec.h"

namespace vesk {

namespace {

using std::chrono::nanoseconds;

nanoseconds readClock(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return toDuration(time);
}

}  // namespace

bool SaturationGauge::windowIsOver(nanoseconds clock) const {
    return clock - start_.clock >= window;
}

void SaturationGauge::endWindow(const SpentTime& now) {
    const nanoseconds length = now.clock - start_.clock;
    // Nine tenths, since clock ticks, interrupts and kernel threads take a part of each window. A
    // twentieth, since at saturation the poll thread, which has the smallest share, has twice that.
    saturated_ = 10 * (now.process - start_.process) >= 9 * length &&
                 20 * (now.thread - start_.thread) >= length;
    start_ = now;
}

bool Lingerer::linger() {
    const nanoseconds now = readClock(CLOCK_MONOTONIC);
    if (gauge_.windowIsOver(now)) {
        gauge_.endWindow(
            {now, readClock(CLOCK_PROCESS_CPUTIME_ID), readClock(CLOCK_THREAD_CPUTIME_ID)});
    }
    if (!gauge_.saturated()) {
        return false;
    }
    sched_yield();
    return true;
}

}  // namespace vesk
