// Ports of sockets that were released recently and may still be open. Part of the endpoint
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
    /// Whether a socket of the port was added within the last second and may still be open: its
    /// descriptors are, or it was added within the last 50 milliseconds.
    bool contains(std::uint16_t port) const;

 private:
    using Clock = std::chrono::steady_clock;

    struct Released {
        std::uint16_t port;
        int rdsockfd;
        int wrsockfd;
        Clock::time_point when;
    };

    static bool mayBeOpen(const Released& released, Clock::time_point now);

    /// Those that are closed are removed when another is added.
    std::vector<Released> released_;
};

}  // namespace vesk
