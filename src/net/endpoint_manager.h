// Which labels are declared, which prefixes are registered, which endpoints exist: the lock around
// the tables of the endpoint registry, which explains each kind of removal.
//
// Held by shared reference from the context. Receive threads look endpoints up for every datagram;
// commands, the creation of endpoints and the clean-up pass write. Nothing is destroyed under the
// lock: an endpoint's last release sends on the message channel, and the datapath would wait
// meanwhile.
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

    /// Makes the endpoint of a declared or auxiliary label, sockets made but not yet set up. Empty
    /// when the label is unknown (silently) or its sockets cannot be had (logged). The socket calls
    /// are made under the write lock. At most one caller at a time may create for one label.
    EndpointPtr createEndpoint(std::uint32_t label, const EndpointDeleter& deleter)
        VESK_EXCLUDES(lock_);

    /// Whether the label is declared, or covered by a registered prefix.
    bool knowsLabel(std::uint32_t label) const VESK_EXCLUDES(lock_);

    /// Files an endpoint under its label and both descriptors. 0, or -1 where a descriptor is filed
    /// already; a label that has an endpoint keeps it.
    // Kept: part of the manager's interface; the forwarder itself files what `createEndpoint`
    // makes.
    int addEndpoint(const EndpointPtr& endpoint) VESK_EXCLUDES(lock_);

    EndpointPtr findEndpointByFd(int fd) const VESK_EXCLUDES(lock_);
    EndpointPtr findEndpointByLabel(std::uint32_t label) const VESK_EXCLUDES(lock_);

    /// Takes the label's endpoint out of the tables; the label's record stays.
    // Kept: part of the manager's interface; the forwarder itself names the endpoint that failed.
    void deleteEndpoint(std::uint32_t label) VESK_EXCLUDES(lock_);

    /// As above, but only while it is this endpoint that is filed: somebody who holds an old one
    /// must not take away its successor.
    void deleteEndpoint(const VeskEndpointDescriptor& endpoint) VESK_EXCLUDES(lock_);

    /// Takes the endpoint out of the tables while it is this one that is filed, with the record of
    /// an auxiliary flow that was made with it.
    void undoCreation(const VeskEndpointDescriptor& endpoint) VESK_EXCLUDES(lock_);

    /// "set": merges the named members into the label's record, makes the label anew with it, and
    /// registers its prefix. Addresses may be resolved again under the lock, which may throw.
    /// Returns the endpoints taken out, for the caller to release.
    std::vector<EndpointPtr> setLabel(std::uint32_t label, const FlowDesc& scratch,
                                      const std::vector<std::string>& members) VESK_EXCLUDES(lock_);

    /// "del": removes the label with its endpoint, its prefix and the auxiliary flows of it.
    /// Returns the endpoints taken out, for the caller to release.
    std::vector<EndpointPtr> removeLabel(std::uint32_t label) VESK_EXCLUDES(lock_);

    /// The clean-up pass: takes out the endpoints of the chosen kinds that are still marked idle,
    /// with the record of an auxiliary flow, and marks the others. Calls `report` for each of them
    /// under the lock, before it leaves the tables: no successor's "Created" line comes first.
    /// Those bound to a port are reported last, so that little time passes until their release.
    /// Returns those taken out, in ascending order of labels, for the caller to release.
    std::vector<EndpointPtr> expireIdle(bool expireMain, bool expireAux, const ExpiryReport& report)
        VESK_EXCLUDES(lock_);

    /// Every endpoint, in ascending order of labels.
    std::vector<EndpointPtr> endpoints() const VESK_EXCLUDES(lock_);

    /// Grows whenever an endpoint was taken out. Whoever reads the same number before a search and
    /// later has found an endpoint that is still filed. Any thread, no lock.
    std::uint64_t removals() const { return removals_.load(std::memory_order_acquire); }

    /// Whether an endpoint that was bound to the port left the tables a moment ago: its socket may
    /// still have to be closed.
    bool portLeftRecently(std::uint16_t port) const VESK_EXCLUDES(lock_);

    /// Runs `action` while no endpoint, and so no upstream socket, can be made.
    void withoutCreation(const std::function<void()>& action) VESK_EXCLUDES(lock_);

 private:
    mutable RwLock lock_;
    std::atomic<std::uint64_t> removals_{0};
    EndpointRegistry registry_ VESK_GUARDED_BY(lock_){removals_};
};

}  // namespace vesk
