#include "lib/process_usage.h"

#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "lib/clocks.h"

namespace vesk::bench {
namespace {

std::int64_t cpuNanoseconds(pid_t pid) {
    // This clock counts nanoseconds, whereas /proc/PID/stat counts ticks of 10 ms.
    clockid_t clock{};
    if (const int error = ::clock_getcpuclockid(pid, &clock); error != 0) {
        throw std::system_error(error, std::generic_category(), "clock_getcpuclockid");
    }
    timespec time{};
    if (::clock_gettime(clock, &time) != 0) {
        throw std::system_error(errno, std::generic_category(), "clock_gettime");
    }
    return time.tv_sec * nanosecondsPerSecond + time.tv_nsec;
}

std::uint64_t voluntarySwitches(const std::filesystem::path& task) {
    std::ifstream status(task / "status");
    for (std::string name; status >> name;) {
        std::uint64_t count = 0;
        if (name == "voluntary_ctxt_switches:" && status >> count) {
            return count;
        }
    }
    return 0;  // the thread has ended
}

}  // namespace

ProcessUsage usageOf(pid_t pid) {
    const std::filesystem::path process = "/proc/" + std::to_string(pid);
    ProcessUsage usage;
    usage.cpuNanoseconds = cpuNanoseconds(pid);
    for (const auto& task : std::filesystem::directory_iterator(process / "task")) {
        usage.waits += voluntarySwitches(task.path());
    }
    std::uint64_t pages = 0;
    std::ifstream(process / "statm") >> pages >> pages;  // the second number is the resident size
    usage.residentBytes = pages * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    return usage;
}

}  // namespace vesk::bench
