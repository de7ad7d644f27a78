// What one receive worker has looked up and keeps for a while, so that it takes no lock that all
// threads share for each datagram. Used by that worker alone.
//
// What is kept is held: a worker lets go of it before it waits for descriptors or for the log's
// reader, and as soon as anything was removed or replaced, which each look-up checks with one load.
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

class KeptEndpoints {
 public:
    explicit KeptEndpoints(const EndpointManager& manager);

    /// Lets go of everything where endpoints have left the tables since the last call; whether they
    /// have.
    bool noticeRemovals();

    /// As the manager's look-ups; valid until it is let go of. A descriptor that led to one
    /// endpoint and now leads to another is not found, once: the worker has it from the socket
    /// before, and the new socket brings a ready event of its own.
    const EndpointPtr& findByFd(int fd);
    const EndpointPtr& findByLabel(std::uint32_t label);

    /// The worker is done with the descriptor for now.
    void letGoOfFd(int fd);
    void letGoOfLabels();
    void letGo();

 private:
    struct Place {
        EndpointPtr endpoint;
        /// What the descriptor led to when it was let go of in the worker's hands.
        std::weak_ptr<VeskEndpointDescriptor> former;
        bool hasFormer = false;
        /// Where its descriptor is in `fds_`.
        std::size_t position = 0;
    };

    static bool isStale(const Place& place, const EndpointPtr& found);

    const EndpointManager& manager_;
    const EndpointPtr none_;
    std::uint64_t removals_ = 0;
    /// The descriptor is the index. Those of the places that are taken, in any order.
    std::vector<Place> byFd_;
    std::vector<int> fds_;
    /// Few, since it serves the siblings on one multiplexed socket: a label has one place.
    std::array<EndpointPtr, 64> byLabel_;
    bool labelsKept_ = false;
};

/// The endpoint in a slot, kept likewise.
class KeptSlot {
 public:
    explicit KeptSlot(const EndpointSlot& slot) : slot_(slot) {}

    const EndpointPtr& get();
    void letGo() { endpoint_.reset(); }

 private:
    const EndpointSlot& slot_;
    std::uint64_t generation_ = 0;
    EndpointPtr endpoint_;
};

}  // namespace vesk
