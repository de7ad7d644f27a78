// The monotonic clock, in nanoseconds.
#pragma once

#include <cstdint>

namespace vesk::bench {

inline constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;

std::int64_t nowNanoseconds();

}  // namespace vesk::bench
