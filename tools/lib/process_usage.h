// What a process has used up so far, as the kernel counts it.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace vesk::bench {

struct ProcessUsage {
    std::int64_t cpuNanoseconds = 0;  // user and system time of all threads it has or had
    std::uint64_t waits = 0;          // how often one of its present threads went to sleep
    std::uint64_t residentBytes = 0;  // memory at this moment
};

/// Throws std::system_error when there is no such process.
ProcessUsage usageOf(pid_t pid);

}  // namespace vesk::bench
