#include "service/passed_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "service/environment.h"

namespace vesk::controller {

namespace {

constexpr int firstPassed = STDERR_FILENO + 1;

/// As many as a process can have open.
constexpr std::int64_t most = 1 << 20;

/// What precedes the next colon, which is removed with it.
std::string takeName(std::string_view& names) {
    std::string name(names.substr(0, names.find(':')));
    names.remove_prefix(std::min(name.size() + 1, names.size()));
    return name;
}

void forget(const char* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread has been started.
    unsetenv(name);
}

}  // namespace

std::vector<PassedDescriptor> takePassedDescriptors() {
    std::vector<PassedDescriptor> passed;
    const std::string names = variable("LISTEN_FDNAMES").value_or("");
    std::string_view rest = names;
    const bool meant = numberIn("LISTEN_PID") == getpid();
    const std::int64_t count = meant ? std::min(numberIn("LISTEN_FDS").value_or(0), most) : 0;
    for (int descriptor = firstPassed; descriptor < firstPassed + count; ++descriptor) {
        std::string name = takeName(rest);
        if (fcntl(descriptor, F_SETFD, FD_CLOEXEC) == 0) {
            passed.push_back({std::move(name), UniqueFd(descriptor)});
        }
    }
    for (const char* const name : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) {
        forget(name);
    }
    return passed;
}

}  // namespace vesk::controller
