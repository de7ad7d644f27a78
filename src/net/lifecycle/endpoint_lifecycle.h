// How an upstream endpoint ends: the one place that knows both endpoints and the poll loop. Its
// functions run on whichever thread lets go of an endpoint or fails to use it.
#pragma once

#include <memory>
#include <string_view>

#include "net/endpoint.h"

namespace vesk {

struct ForwarderContext;

/// Asks the poll loop to drop both descriptors and close them; closes here what it cannot be asked
/// for.
void endpointSocketDestructor(int rdsockfd, int wrsockfd,
                              const std::shared_ptr<ForwarderContext>& context);

/// The deleter of upstream endpoints. It does not keep the context alive, which holds the
/// endpoints; once the context is gone so is the poll loop, and the sockets are closed at once.
EndpointDeleter upstreamEndpointDeleter(ForwarderContext& context);

/// Whether an error of a flow's socket is expected to pass by itself: the endpoint stays.
bool isPassingError(int error);

/// Logs a failure on the endpoint's sockets, with `prefix` for what was tried. 0 where it is a
/// passing one and the endpoint stays; 1 where the endpoint was deleted.
int reportUpstreamNetworkError(const VeskEndpointDescriptor& endpoint, std::string_view prefix,
                               int error, ForwarderContext& context);

}  // namespace vesk
