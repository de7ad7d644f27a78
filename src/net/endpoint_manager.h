// The labels that are declared, the prefixes that are registered and the endpoints that exist: the
// lock around the tables of the endpoint registry, which explains each kind of removal.
//
// Any thread. The receive threads and the workers look up endpoints; commands, the creation of
// endpoints and the clean-up pass write. Nothing is destroyed under the lock: the last release of
// an endpoint sends on the message channel, and the datapath would wait for that.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "base/sync.h"
#include "net/endpoint.h"
#include "net/endpoint_registry.h"

namespace vesk {

class EndpointManager {
 public:
    EndpointManager() = default;
    EndpointManager(const EndpointManager&) = delete;
    EndpointManager& operator=(const EndpointManager&) = delete;

    /// Makes the endpoint of a declared or auxiliary label, with sockets that are not yet set up.
    /// Empty if the label is unknown (not logged) or the sockets cannot be made (logged). The
    /// socket calls are made under the write lock. Only one thread at a time may create the
    /// endpoint of a label.
    EndpointPtr createEndpoint(std::uint32_t label, const EndpointDeleter& deleter)
        VESK_EXCLUDES(lock_);

    /// Whether the label is declared, or covered by a registered prefix.
    bool knowsLabel(std::uint32_t label) const VESK_EXCLUDES(lock_);

    /// Files an endpoint under its label and both descriptors. 0, or -1, after logging, if a
    /// descriptor is already filed. A label that has an endpoint keeps it.
    // Kept: part of the manager's interface; in the forwarder `createEndpoint` files the endpoints
    // that it makes.
    int addEndpoint(const EndpointPtr& endpoint) VESK_EXCLUDES(lock_);

    /// Empty if there is none.
    EndpointPtr findEndpointByFd(int fd) const VESK_EXCLUDES(lock_);
    EndpointPtr findEndpointByLabel(std::uint32_t label) const VESK_EXCLUDES(lock_);

    /// Takes the label's endpoint out of the tables. The label's record stays.
    // Kept: part of the manager's interface; the forwarder calls the overload below.
    void deleteEndpoint(std::uint32_t label) VESK_EXCLUDES(lock_);

    /// As above, but only if this very endpoint is filed: a thread that holds an old endpoint must
    /// not remove its successor.
    void deleteEndpoint(const VeskEndpointDescriptor& endpoint) VESK_EXCLUDES(lock_);

    /// Takes the endpoint out of the tables if this very endpoint is filed. The record of an
    /// auxiliary flow is removed too if it was made with this endpoint.
    void undoCreation(const VeskEndpointDescriptor& endpoint) VESK_EXCLUDES(lock_);

    /// "set": merges the named attributes into the label's record, replaces the label by one with
    /// the merged record, and registers its prefix. Addresses may be resolved again under the lock;
    /// if that throws, nothing is changed. Returns the endpoints taken out, for the caller to
    /// release.
    std::vector<EndpointPtr> setLabel(std::uint32_t label, const FlowDesc& scratch,
                                      const std::vector<std::string>& members) VESK_EXCLUDES(lock_);

    /// "del": removes the label with its endpoint, its prefix and the auxiliary flows of that
    /// prefix. Returns the endpoints taken out, for the caller to release.
    std::vector<EndpointPtr> removeLabel(std::uint32_t label) VESK_EXCLUDES(lock_);

    /// The clean-up pass. Of the chosen kinds it takes out the endpoints that are still marked
    /// idle, with the records of auxiliary flows, and marks the others. Calls `report` for each
    /// endpoint under the lock, before it leaves the tables, so that the "Created" line of a
    /// successor cannot come first. Endpoints bound to a port are reported last, so that they are
    /// released soon after. Returns the endpoints taken out, in ascending order of labels, for the
    /// caller to release.
    std::vector<EndpointPtr> expireIdle(bool expireMain, bool expireAux, const ExpiryReport& report)
        VESK_EXCLUDES(lock_);

    /// Every endpoint, in ascending order of labels.
    std::vector<EndpointPtr> endpoints() const VESK_EXCLUDES(lock_);

    /// Grows whenever an endpoint is taken out. If it is the same before a look-up and later, the
    /// endpoint found is still filed. Takes no lock.
    std::uint64_t removals() const { return removals_.load(std::memory_order_acquire); }

    /// Whether an endpoint that was bound to the port (in host byte order) left the tables within
    /// the last second, and its socket may still be open.
    bool portLeftRecently(std::uint16_t port) const VESK_EXCLUDES(lock_);

    /// Calls `action` under the write lock, so that no endpoint and no upstream socket is made
    /// meanwhile.
    void withoutCreation(const std::function<void()>& action) VESK_EXCLUDES(lock_);

 private:
    mutable RwLock lock_;
    std::atomic<std::uint64_t> removals_{0};
    EndpointRegistry registry_ VESK_GUARDED_BY(lock_){removals_};
};

}  // namespace vesk
