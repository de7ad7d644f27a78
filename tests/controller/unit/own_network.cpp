#include "own_network.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <thread>

#include "base/unique_fd.h"

namespace vesk::controller {

namespace {

bool loopbackUp() {
    const UniqueFd control(socket(AF_INET, SOCK_DGRAM, 0));
    ifreq request{};
    std::ranges::copy(std::string_view("lo"), request.ifr_name);
    request.ifr_flags = IFF_UP;
    return ioctl(control.get(), SIOCSIFFLAGS, &request) == 0;
}

}  // namespace

std::string inOwnNetwork(const std::function<void()>& test) {
    std::string refusal;
    std::thread([&] {
        if (unshare(CLONE_NEWNET) != 0 || !loopbackUp()) {
            refusal = "no network namespace: " + std::generic_category().message(errno);
            return;
        }
        test();
    }).join();
    return refusal;
}

}  // namespace vesk::controller
