// The end of an upstream endpoint: how its sockets are closed, and which errors remove it. Called
// on the thread that releases the endpoint or fails to use it.
#pragma once

#include <memory>
#include <string_view>

#include "net/endpoint.h"

namespace vesk {

struct ForwarderContext;

/// Asks the poll loop to stop watching both descriptors and to close them. Closes a descriptor
/// itself, after logging, if the request fails.
void endpointSocketDestructor(int rdsockfd, int wrsockfd,
                              const std::shared_ptr<ForwarderContext>& context);

/// The deleter of upstream endpoints. It does not keep the context alive, since the context holds
/// the endpoints. Once the context is destroyed there is no poll loop, and the deleter closes the
/// sockets itself.
EndpointDeleter upstreamEndpointDeleter(ForwarderContext& context);

/// Whether an error (a positive errno) of a flow's socket is expected to be temporary, so that the
/// endpoint stays.
bool isPassingError(int error);

/// Logs a failure on the endpoint's sockets; `prefix` names what was tried, `error` is a positive
/// errno. 0 if the failure is temporary and the endpoint stays, 1 if the endpoint was deleted.
/// Takes the endpoint manager's lock.
int reportUpstreamNetworkError(const VeskEndpointDescriptor& endpoint, std::string_view prefix,
                               int error, ForwarderContext& context);

}  // namespace vesk
