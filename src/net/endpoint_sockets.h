// Making the sockets of endpoints, and the deleter of those that the poll loop does not watch.
// "start" and "start_lateral" call it on the main thread, the endpoint manager on a receive thread.
#pragma once

#include <string>

#include "base/unique_fd.h"
#include "net/endpoint.h"

namespace vesk {

/// The two descriptors of one upstream socket.
struct SocketPair {
    UniqueFd rdsockfd;
    UniqueFd wrsockfd;
};

/// A bound, blocking endpoint with one socket; empty on failure, which is logged. The family
/// follows from the address text. A resolver failure passes through as std::runtime_error.
EndpointPtr makeEndpointSocket(const std::string& address, int port);
EndpointPtr makeDownstreamEndpoint(const std::string& address, int port);
EndpointPtr makeLateralStreamEndpoint(const std::string& address, int port);

/// A non-blocking socket and its duplicate. 0, or -errno and `out` untouched.
int makeEndpointSocketPair(int family, SocketPair& out);

/// The deleter of the downstream and lateral endpoints: closes what is not -1.
///
/// Kept: one descriptor held under two names is closed under both. Whoever releases such an
/// endpoint must see to it that no descriptor is made meanwhile, or the second close could hit it.
void closeEndpointSockets(int rdsockfd, int wrsockfd);

}  // namespace vesk
