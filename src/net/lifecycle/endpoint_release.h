// How endpoints are released that leave the tables together: an expiry of thousands, or an owner
// with its auxiliary flows. On the main thread ("set", "del") and on that of the clean-up task.
#pragma once

#include <memory>
#include <vector>

#include "net/endpoint.h"

namespace vesk {

struct ForwarderContext;

/// Releases the endpoints: those bound to a port first, which somebody may want again at once. The
/// sockets of those that nobody else holds are deleted in rows of records, no faster than the poll
/// thread carries them out, so that neither other records nor replies wait behind all of them.
/// Returns when the last record was sent; hold no lock.
void releaseEndpoints(std::vector<EndpointPtr> endpoints,
                      const std::shared_ptr<ForwarderContext>& context);

}  // namespace vesk
