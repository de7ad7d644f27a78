// The endpoints that one receive thread or worker has looked up and keeps for a while, so that it
// does not take a lock shared by all threads for each datagram. Used by that thread only.
//
// Endpoints that are kept cannot be destroyed. A thread therefore releases them before it waits for
// datagrams or descriptors or writes to the log, and as soon as an endpoint is removed or replaced.
// That check costs one load.
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

/// Whether endpoints have left the manager's tables.
class RemovalWatch {
 public:
    explicit RemovalWatch(const EndpointManager& manager);

    /// Whether some have left since the last call. If so, the caller has to release its endpoints,
    /// since references to removed ones keep ports from being reused.
    bool noticeRemovals();
    /// Whether none has left since the last call of `noticeRemovals`.
    bool unchanged() const;

 private:
    const EndpointManager& manager_;
    std::uint64_t seen_;
};

/// The endpoints looked up by label.
class LabelCache {
 public:
    explicit LabelCache(const EndpointManager& manager) : manager_(manager) {}

    /// The label's endpoint; empty if there is none. Valid until `letGo`.
    const EndpointPtr& find(std::uint32_t label);
    /// Keeps what another look-up has found for the label.
    const EndpointPtr& keep(std::uint32_t label, EndpointPtr endpoint);
    void letGo();

 private:
    const EndpointManager& manager_;
    /// By label modulo its size. Small, since a thread has few labels to look up at a time.
    std::array<EndpointPtr, 64> byLabel_;
    /// The endpoints that others have displaced. Their users may still refer to them.
    std::vector<EndpointPtr> displaced_;
    bool used_ = false;
};

class EndpointCache {
 public:
    explicit EndpointCache(const EndpointManager& manager)
        : manager_(manager), removals_(manager), labels_(manager) {}

    /// As RemovalWatch. If so, the caller has to call `letGo`.
    bool noticeRemovals() { return removals_.noticeRemovals(); }
    /// Whether the endpoint, looked up since the last `noticeRemovals`, is still in the tables.
    bool isCurrent(const VeskEndpointDescriptor& endpoint) const;

    /// As the manager's look-ups; the result is valid until it is released. A descriptor that
    /// belonged to one endpoint and now belongs to another is not found the first time: the worker
    /// got the number for the old socket, and the new socket has its own ready event.
    const EndpointPtr& findByFd(int fd);
    const EndpointPtr& findByLabel(std::uint32_t label) { return labels_.find(label); }

    /// Ends the use of the descriptor. Its endpoint is released by the functions below: the one
    /// releases the endpoints of ended descriptors and those looked up by label, the other all.
    void endFd(int fd);
    void letGoOfEnded();
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
    RemovalWatch removals_;
    /// The index is the descriptor. `fds_` lists the descriptors of the places in use, in any
    /// order.
    std::vector<Place> byFd_;
    std::vector<int> fds_;
    std::vector<EndpointPtr> ended_;
    /// Needed only for flows that share a multiplexed socket.
    LabelCache labels_;
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
