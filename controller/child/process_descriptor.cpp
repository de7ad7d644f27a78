#include "child/process_descriptor.h"

#include <poll.h>
#include <signal.h>

// The header of glibc 2.36 does not say that these are C functions.
extern "C" {
#include <sys/pidfd.h>
}

#include <charconv>
#include <fstream>
#include <string>
#include <string_view>

namespace vesk::controller {

UniqueFd processDescriptor(pid_t pid) {
    return UniqueFd(pidfd_open(pid, 0));
}

void signalProcess(int descriptor, int number) {
    static_cast<void>(pidfd_send_signal(descriptor, number, nullptr, 0));
}

pid_t processOf(int descriptor) {
    constexpr std::string_view field = "Pid:\t";
    std::ifstream information("/proc/self/fdinfo/" + std::to_string(descriptor));
    for (std::string line; std::getline(information, line);) {
        pid_t pid = -1;
        if (line.starts_with(field)) {
            std::from_chars(line.data() + field.size(), line.data() + line.size(), pid);
            return pid;
        }
    }
    return -1;
}

bool hasEnded(int descriptor) {
    pollfd watched{descriptor, POLLIN, 0};
    return poll(&watched, 1, 0) == 1 && (watched.revents & (POLLIN | POLLHUP)) != 0;
}

}  // namespace vesk::controller
