#include "net/released_ports.h"

#include <algorithm>

namespace vesk {

namespace {

/// Longer than a worker holds an endpoint, and than the poll thread needs for a row of deletions.
constexpr std::chrono::seconds memory{1};

}  // namespace

void ReleasedPorts::add(std::uint16_t port) {
    const Clock::time_point now = Clock::now();
    std::erase_if(released_,
                  [now](const Released& released) { return now - released.when >= memory; });
    released_.push_back({port, now});
}

bool ReleasedPorts::contains(std::uint16_t port) const {
    const Clock::time_point oldest = Clock::now() - memory;
    return std::ranges::any_of(released_, [port, oldest](const Released& released) {
        return released.port == port && released.when > oldest;
    });
}

}  // namespace vesk
