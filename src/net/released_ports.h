// Ports of sockets that were released recently and are not closed yet. Part of the endpoint
// registry; guarded by the endpoint manager's lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

namespace vesk {

class ReleasedPorts {
 public:
    /// The port, in host byte order, of the socket with these descriptors.
    void add(std::uint16_t port, int rdsockfd, int wrsockfd);
    /// Whether a socket of the port was added within the last second and is still open.
    bool contains(std::uint16_t port) const;

 private:
    using Clock = std::chrono::steady_clock;

    struct Released {
        std::uint16_t port;
        int rdsockfd;
        int wrsockfd;
        Clock::time_point when;
    };

    static bool isOpen(const Released& released, Clock::time_point now);

    /// Those that are no longer open are removed when another is added.
    std::vector<Released> released_;
};

}  // namespace vesk
