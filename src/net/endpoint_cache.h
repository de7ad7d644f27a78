// The endpoints that one receive worker has looked up and keeps for a while, so that it does not
// take a lock shared by all threads for each datagram. Used by that worker only.
//
// Endpoints that are kept cannot be destroyed. A worker therefore releases them before it waits for
// descriptors or writes to the log, and as soon as an endpoint is removed or replaced. That check
// costs one load.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "net/endpoint.h"
#include "net/endpoint_slot.h"

namespace vesk {

class EndpointManager;

class EndpointCache {
 public:
    explicit EndpointCache(const EndpointManager& manager);

    /// Whether endpoints have left the tables since the last call. If so, releases everything.
    bool noticeRemovals();

    /// As the manager's look-ups; the result is valid until it is released. A descriptor that
    /// belonged to one endpoint and now belongs to another is not found the first time: the worker
    /// got the number for the old socket, and the new socket has its own ready event.
    const EndpointPtr& findByFd(int fd);
    const EndpointPtr& findByLabel(std::uint32_t label);

    /// Releases the descriptor's endpoint, once the worker has finished with the descriptor. The
    /// functions below release the endpoints looked up by label, and all endpoints.
    void letGoOfFd(int fd);
    void letGoOfLabels();
    void letGo();

 private:
    struct Place {
        EndpointPtr endpoint;
        /// The endpoint that was released while the worker still served the descriptor.
        std::weak_ptr<VeskEndpointDescriptor> former;
        bool hasFormer = false;
        /// The index of its descriptor in `fds_`.
        std::size_t position = 0;
    };

    static bool isStale(const Place& place, const EndpointPtr& found);

    const EndpointManager& manager_;
    const EndpointPtr none_;
    std::uint64_t removals_ = 0;
    /// The index is the descriptor. `fds_` lists the descriptors of the places in use, in any
    /// order.
    std::vector<Place> byFd_;
    std::vector<int> fds_;
    /// By label modulo its size. Small, since it is needed only for flows that share a multiplexed
    /// socket.
    std::array<EndpointPtr, 64> byLabel_;
    bool labelsKept_ = false;
};

/// The endpoint of a slot, kept in the same way.
class CachedSlot {
 public:
    explicit CachedSlot(const EndpointSlot& slot) : slot_(slot) {}

    /// The endpoint that the slot lends, looked up again if the slot was changed; empty if it lends
    /// none.
    const EndpointPtr& get();
    void letGo() { endpoint_.reset(); }

 private:
    const EndpointSlot& slot_;
    std::uint64_t generation_ = 0;
    EndpointPtr endpoint_;
};

}  // namespace vesk
