#include "net/released_ports.h"

#include <algorithm>

namespace vesk {

void ReleasedPorts::add(std::uint16_t port) {
    const Clock::time_point now = Clock::now();
    while (!ports_.empty() && isPast(ports_.front(), now)) {
        ports_.pop_front();
    }
    ports_.push_back({port, now});
}

bool ReleasedPorts::contains(std::uint16_t port) const {
    const Clock::time_point now = Clock::now();
    return std::ranges::any_of(ports_, [port, now](const Released& released) {
        return released.port == port && !isPast(released, now);
    });
}

bool ReleasedPorts::isPast(const Released& released, Clock::time_point now) {
    constexpr std::chrono::milliseconds recent{50};
    return now - released.when > recent;
}

}  // namespace vesk
