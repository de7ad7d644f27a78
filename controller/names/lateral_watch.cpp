#include "names/lateral_watch.h"

#include <utility>

namespace vesk::controller {

bool LateralWatch::observe(const LateralCounters& now) {
    const LateralCounters last = std::exchange(last_, now);
    const bool silent = now.sent > last.sent && now.received == last.received;
    return now.dropped > last.dropped || silent;
}

}  // namespace vesk::controller
