// The ports whose sockets were let go a moment ago and may still have to be closed. Without a lock
// of its own: part of the endpoint registry, which the endpoint manager's lock guards.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>

namespace vesk {

class ReleasedPorts {
 public:
    void add(std::uint16_t port);
    /// Whether the port was added in the last 50 milliseconds.
    bool contains(std::uint16_t port) const;

 private:
    using Clock = std::chrono::steady_clock;

    struct Released {
        std::uint16_t port;
        Clock::time_point when;
    };

    static bool isPast(const Released& released, Clock::time_point now);

    /// Oldest first; none for long.
    std::deque<Released> ports_;
};

}  // namespace vesk
