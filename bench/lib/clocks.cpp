#include "lib/clocks.h"

#include <cerrno>
#include <ctime>
#include <system_error>

namespace vesk::bench {
namespace {

std::int64_t read(clockid_t clock) {
    timespec time{};
    if (::clock_gettime(clock, &time) != 0) {
        throw std::system_error(errno, std::generic_category(), "clock_gettime");
    }
    return time.tv_sec * nanosecondsPerSecond + time.tv_nsec;
}

}  // namespace

std::int64_t nowNanoseconds() {
    return read(CLOCK_MONOTONIC);
}

std::int64_t processCpuNanoseconds(pid_t pid) {
    // Counted in nanoseconds by the scheduler, where /proc/PID/stat counts ticks of 10 ms.
    clockid_t clock{};
    if (const int error = ::clock_getcpuclockid(pid, &clock); error != 0) {
        throw std::system_error(error, std::generic_category(), "clock_getcpuclockid");
    }
    return read(clock);
}

}  // namespace vesk::bench
