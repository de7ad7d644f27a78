// Makes the sockets of endpoints, and defines the deleter of endpoints that the poll loop does not
// watch. Called by "start" and "start_lateral" on the main thread, and by the endpoint manager on a
// receive thread.
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

/// A bound endpoint with one blocking socket; empty, after logging, on failure. The address text
/// determines the family; the port is in host byte order. If the resolver fails, std::runtime_error
/// is thrown; if it returns no usable address, std::invalid_argument.
EndpointPtr makeEndpointSocket(const std::string& address, int port);
/// As above; the log line names the kind of endpoint.
EndpointPtr makeDownstreamEndpoint(const std::string& address, int port);
EndpointPtr makeLateralStreamEndpoint(const std::string& address, int port);

/// A non-blocking socket and its duplicate. 0, or -errno, after logging, with `out` unchanged.
int makeEndpointSocketPair(int family, SocketPair& out);

/// The deleter of the downstream and lateral endpoints: closes each descriptor that is not -1.
///
/// Kept: a descriptor passed as both arguments is closed twice. The caller that releases such an
/// endpoint ensures that no descriptor is made meanwhile; the second close could close that one.
void closeEndpointSockets(int rdsockfd, int wrsockfd);

}  // namespace vesk
