// The two clocks of a measurement: time on the wall and processor time of a process.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace vesk::bench {

inline constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;

std::int64_t nowNanoseconds();

/// User and system time of all threads that the process has or had. Throws std::system_error when
/// there is no such process.
std::int64_t processCpuNanoseconds(pid_t pid);

}  // namespace vesk::bench
