// Holds the public port of several instances, so that no other process takes it. Called by
// service/supervisor, on the main thread.
#pragma once

#include <cstdint>

#include "base/unique_fd.h"
#include "config/configuration.h"

namespace vesk::controller {

/// Claims the name of the table of a port for as long as the socket is open. 0; or the negative
/// error number, -EBUSY if another controller has it.
int claimTable(std::uint16_t port, UniqueFd& claim);

/// A socket that is bound to the public port and never read: what arrives is steered to the
/// instances before it. Also a claim to the name of the table of the packet filter, which two
/// controllers with one port on different addresses would share.
class PublicPort {
 public:
    /// Holds the address, and releases the one held before. 0; or the negative error number, with
    /// nothing changed: -EBUSY if another controller steers this port.
    int take(const HostPort& address);

    void release();
    bool held() const { return static_cast<bool>(socket_); }

 private:
    UniqueFd socket_;
    UniqueFd claim_;
    std::uint16_t port_ = 0;
};

}  // namespace vesk::controller
