// The tables: which labels are declared, which prefixes are registered, which endpoints exist.
//
// Held by shared reference from the context. Receive threads look endpoints up for every datagram;
// commands, the creation of endpoints and the clean-up pass write. Nothing is destroyed under the
// lock: an endpoint's last release sends on the message channel, and the datapath would wait
// meanwhile.
//
// There is one operation for each reason to take an endpoint out, and they differ in the records
// that go with it. An auxiliary flow's record is made from its owner's with its first endpoint.
//
//   deleteEndpoint   it failed: no record goes
//   undoCreation     it turned out to be of no use, or its first datagram was forged: the record of
//                    an auxiliary flow goes if it was made with this endpoint. Kept, records would
//                    pile up for every label that anybody makes up
//   expireIdle       it was idle: the record of an auxiliary flow goes
//   removeLabel      "del": the label's record goes, and with an owner's its prefix and its
//                    auxiliary flows with their endpoints and records
//   setLabel         "set": as removeLabel, and a merged record takes the place of the old one
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory_resource>
#include <string>
#include <unordered_set>
#include <vector>

#include "base/locked_pool.h"
#include "base/sync.h"
#include "base/undumped_pages.h"
#include "net/endpoint.h"
#include "net/endpoint_tables.h"

namespace vesk {

/// Who owns a prefix of auxiliary labels, and which labels were made from it.
struct AuxPrefixEntry {
    /// The flow that registered the prefix and whose record is the template.
    std::uint32_t baseLabel = 0;
    std::unordered_set<std::uint32_t> auxLabels;
    /// Those of them whose record has outlived an endpoint, and is not undone with a later one.
    std::unordered_set<std::uint32_t> lastingLabels;
};

/// Told of each endpoint that expires.
using ExpiryReport = std::function<void(const VeskEndpointDescriptor& endpoint)>;

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
    int addEndpoint(const EndpointPtr& endpoint) VESK_EXCLUDES(lock_);

    EndpointPtr findEndpointByFd(int fd) const VESK_EXCLUDES(lock_);
    EndpointPtr findEndpointByLabel(std::uint32_t label) const VESK_EXCLUDES(lock_);

    /// Takes the label's endpoint out of the tables; the label's record stays.
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
    /// What is on its way out, to be destroyed once the lock is given back.
    struct Removed;

    /// The port of an endpoint that left the tables, and when.
    struct LeftPort {
        std::uint16_t port;
        std::chrono::steady_clock::time_point when;
    };

    /// Files an endpoint just made, or logs that it cannot be and leaves no trace of it.
    bool fileNewLocked(const EndpointPtr& endpoint) VESK_REQUIRES(lock_);
    int addEndpointLocked(const EndpointPtr& endpoint) VESK_REQUIRES(lock_);
    const FlowDesc* findOrMakeFlowLocked(std::uint32_t label) VESK_REQUIRES(lock_);
    void removeEndpointLocked(std::uint32_t label, Removed& removed) VESK_REQUIRES(lock_);
    void unfileLocked(const VeskEndpointDescriptor& endpoint) VESK_REQUIRES(lock_);
    void noteLeftPortLocked(std::uint16_t port) VESK_REQUIRES(lock_);
    /// Those of the prefix that is on its way out.
    void removeAuxFlowsLocked(Removed& removed) VESK_REQUIRES(lock_);
    /// Marks the endpoints of the chosen kinds as idle; returns those that were already, in
    /// ascending order of labels.
    std::vector<EndpointPtr> markOrChooseLocked(bool expireMain, bool expireAux)
        VESK_REQUIRES(lock_);
    /// Whether it is this endpoint that its label has.
    bool isFiledLocked(const VeskEndpointDescriptor& endpoint) const VESK_REQUIRES_SHARED(lock_);
    void removeLabelLocked(std::uint32_t label, Removed& removed) VESK_REQUIRES(lock_);
    /// Notes that the record of an auxiliary flow stays although its endpoint goes.
    void keepAuxRecordLocked(std::uint32_t label) VESK_REQUIRES(lock_);
    /// Removes the record of an auxiliary flow that was made with an endpoint just taken out or not
    /// filed at all.
    void undoAuxRecordLocked(std::uint32_t label, Removed& removed) VESK_REQUIRES(lock_);
    void removeAuxRecordLocked(std::uint32_t label, Removed& removed) VESK_REQUIRES(lock_);
    void forgetAuxLabelLocked(std::uint32_t label) VESK_REQUIRES(lock_);
    bool isAuxLocked(std::uint32_t label) const VESK_REQUIRES_SHARED(lock_);
    void registerPrefixLocked(const FlowDesc& flow) VESK_REQUIRES(lock_);

    LabelTable endpointsByLabel_ VESK_GUARDED_BY(lock_);
    /// Each endpoint stands here under its read and under its write descriptor.
    DescriptorTable endpointsByFd_ VESK_GUARDED_BY(lock_);
    /// Oldest first; none for long.
    std::deque<LeftPort> leftPorts_ VESK_GUARDED_BY(lock_);
    mutable RwLock lock_;
    std::atomic<std::uint64_t> removals_{0};
    /// Where the records of labels are, since they hold keys. What is removed is used again.
    UndumpedPages recordPages_;
    /// With a lock of its own: records that were taken out are destroyed when ours is given back.
    LockedPool records_{&recordPages_};
    std::pmr::map<std::uint32_t, FlowDesc> labels_ VESK_GUARDED_BY(lock_){&records_};
    std::map<std::uint16_t, AuxPrefixEntry> auxPrefixes_ VESK_GUARDED_BY(lock_);
};

}  // namespace vesk
