// Releases endpoints that left the tables together, such as thousands that expired, or those of an
// owner and its auxiliary flows. Called on the main thread ("set", "del") and on the thread of the
// clean-up task.
#pragma once

#include <memory>
#include <vector>

#include "net/endpoint.h"

namespace vesk {

struct ForwarderContext;

/// Releases the endpoints, those bound to a port first, since the port may be needed again at once.
/// The sockets of endpoints that no other thread holds are deleted in rows of records, no faster
/// than the poll thread carries them out, so that other records and replies do not wait behind all
/// of them. Returns when the last record is sent. May block: hold no lock.
void releaseEndpoints(std::vector<EndpointPtr> endpoints,
                      const std::shared_ptr<ForwarderContext>& context);

}  // namespace vesk
