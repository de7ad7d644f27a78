#include "net/upstream_binding.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "log/error_text.h"
#include "log/log.h"
#include "net/endpoint_manager.h"

namespace vesk {

namespace {

/// How long to retry. A worker may hold the old endpoint until the end of its pass; then the poll
/// thread closes its sockets. If other processes use the processors, both may have to wait for a
/// time slice. While this thread waits, it handles no other datagram.
constexpr std::chrono::milliseconds patience{50};
constexpr useconds_t retryMicroseconds = 100;

/// Binds the socket, and retries while a released port is still in use. 0 or a positive errno.
int bindRetrying(int socket, const IPAddrInfo& local, const EndpointManager& manager) {
    const auto began = std::chrono::steady_clock::now();
    const bool released = manager.portLeftRecently(local.port());
    while (bind(socket, local.addr(), local.addrLen()) != 0) {
        const int error = errno;
        if (error != EADDRINUSE || !released ||
            std::chrono::steady_clock::now() - began > patience) {
            return error;
        }
        usleep(retryMicroseconds);
    }
    return 0;
}

}  // namespace

bool bindUpstreamSocket(VeskEndpointDescriptor& endpoint, const EndpointManager& manager) {
    const IPAddrInfo& local = endpoint.flow.up.srcAddrInfo;
    if (!local.resolved()) {
        return true;
    }
    if (const int error = bindRetrying(endpoint.rdsockfd, local, manager); error != 0) {
        logError("Failed bind syscall for upstream endpoint socket: ", errorText(error));
        return false;
    }
    endpoint.boundPort.store(local.port(), std::memory_order_relaxed);
    logInfo("Bound upstream endpoint to ", local.host(), ":", local.port());
    return true;
}

}  // namespace vesk
