// Ports of sockets that were released within the last second and may still be open. Part of the
// endpoint registry; guarded by the endpoint manager's lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

namespace vesk {

class ReleasedPorts {
 public:
    /// The port, in host byte order, of a socket that is about to be closed.
    void add(std::uint16_t port);
    /// Whether a socket of the port was added within the last second. Whether it is open cannot be
    /// asked: close(2) frees the number of the descriptor before it releases the port.
    bool contains(std::uint16_t port) const;

 private:
    using Clock = std::chrono::steady_clock;

    struct Released {
        std::uint16_t port;
        Clock::time_point when;
    };

    /// Old ones are removed when another is added.
    std::vector<Released> released_;
};

}  // namespace vesk
