// The resources that a process has used so far, as counted by the kernel.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace vesk::bench {

struct ProcessUsage {
    std::int64_t cpuNanoseconds = 0;  // user and system time of all threads, ended ones included
    std::uint64_t waits = 0;          // voluntary context switches of its present threads
    std::uint64_t residentBytes = 0;  // memory at this moment
};

/// Throws std::system_error if there is no such process.
ProcessUsage usageOf(pid_t pid);

}  // namespace vesk::bench
