#include "lib/clocks.h"

#include <ctime>

namespace vesk::bench {

std::int64_t nowNanoseconds() {
    timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * nanosecondsPerSecond + time.tv_nsec;
}

}  // namespace vesk::bench
