// Ports whose sockets were released recently and may still be open. Part of the endpoint registry;
// guarded by the endpoint manager's lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>

namespace vesk {

class ReleasedPorts {
 public:
    void add(std::uint16_t port);
    /// Whether the port (in host byte order) was added within the last 50 milliseconds.
    bool contains(std::uint16_t port) const;

 private:
    using Clock = std::chrono::steady_clock;

    struct Released {
        std::uint16_t port;
        Clock::time_point when;
    };

    static bool isPast(const Released& released, Clock::time_point now);

    /// Oldest first. Old entries are removed when a port is added.
    std::deque<Released> ports_;
};

}  // namespace vesk
