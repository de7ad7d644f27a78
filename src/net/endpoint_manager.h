// The tables: which labels are declared, which prefixes are registered, which endpoints exist.
//
// Held by shared reference from the context. Receive threads look endpoints up for every datagram;
// commands, the creation of endpoints and the clean-up pass write. Nothing is destroyed under the
// lock: an endpoint's last release sends on the message channel, and the datapath would stand still
// meanwhile.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <unordered_set>
#include <vector>

#include "base/sync.h"
#include "net/endpoint.h"
#include "net/endpoint_tables.h"

namespace vesk {

/// Who owns a prefix of auxiliary labels, and which labels were made from it.
struct AuxPrefixEntry {
    /// The flow that registered the prefix and whose record is the template.
    std::uint32_t baseLabel = 0;
    std::unordered_set<std::uint32_t> auxLabels;
};

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

    /// Takes the label's endpoint out of the tables; a declared label stays declared.
    void deleteEndpoint(std::uint32_t label) VESK_EXCLUDES(lock_);

    /// As above, but only while it is this endpoint that is filed: somebody who holds an old one
    /// must not take away its successor.
    void deleteEndpoint(const VeskEndpointDescriptor& endpoint) VESK_EXCLUDES(lock_);

    /// "set": merges the named members into the label's record, makes the label anew with it, and
    /// registers its prefix. Addresses may be resolved again under the lock, which may throw.
    void setLabel(std::uint32_t label, const FlowDesc& scratch,
                  const std::vector<std::string>& members) VESK_EXCLUDES(lock_);

    /// "del": removes the label with its endpoint, its prefix and the auxiliary flows of it.
    void removeLabel(std::uint32_t label) VESK_EXCLUDES(lock_);

    /// The clean-up pass: takes out the endpoints of the chosen kinds that are still marked idle,
    /// with the record of an auxiliary flow, and marks the others. Returns those taken out, in
    /// ascending order of labels, for the caller to report and release.
    std::vector<EndpointPtr> expireIdle(bool expireMain, bool expireAux) VESK_EXCLUDES(lock_);

    /// Every endpoint, in ascending order of labels.
    std::vector<EndpointPtr> endpoints() const VESK_EXCLUDES(lock_);

    /// Runs `action` while no endpoint, and so no upstream socket, can be made.
    void withoutCreation(const std::function<void()>& action) VESK_EXCLUDES(lock_);

 private:
    /// Endpoints on their way out, to be released once the lock is given back.
    using RemovedEndpoints = std::vector<EndpointPtr>;

    /// Files an endpoint just made, or logs that it cannot be and leaves no trace of it.
    bool fileNewLocked(const EndpointPtr& endpoint) VESK_REQUIRES(lock_);
    int addEndpointLocked(const EndpointPtr& endpoint) VESK_REQUIRES(lock_);
    const FlowDesc* findOrMakeFlowLocked(std::uint32_t label) VESK_REQUIRES(lock_);
    void removeEndpointLocked(std::uint32_t label, RemovedEndpoints& removed) VESK_REQUIRES(lock_);
    void unfileLocked(const VeskEndpointDescriptor& endpoint) VESK_REQUIRES(lock_);
    void removeAuxFlowsLocked(const AuxPrefixEntry& owned, RemovedEndpoints& removed)
        VESK_REQUIRES(lock_);
    void takeOutLocked(std::uint32_t label, RemovedEndpoints& removed) VESK_REQUIRES(lock_);
    void removeLabelLocked(std::uint32_t label, RemovedEndpoints& removed) VESK_REQUIRES(lock_);
    /// Drops the record of an auxiliary flow that has lost its endpoint; the next datagram makes it
    /// anew from its owner's. Kept, records would pile up for every label that anybody makes up.
    void forgetAuxFlowLocked(std::uint32_t label) VESK_REQUIRES(lock_);
    void forgetAuxLabelLocked(std::uint32_t label) VESK_REQUIRES(lock_);
    bool isAuxLocked(std::uint32_t label) const VESK_REQUIRES_SHARED(lock_);
    void registerPrefixLocked(const FlowDesc& flow) VESK_REQUIRES(lock_);

    LabelTable endpointsByLabel_ VESK_GUARDED_BY(lock_);
    /// Each endpoint stands here under its read and under its write descriptor.
    DescriptorTable endpointsByFd_ VESK_GUARDED_BY(lock_);
    mutable RwLock lock_;
    std::map<std::uint32_t, FlowDesc> labels_ VESK_GUARDED_BY(lock_);
    std::map<std::uint16_t, AuxPrefixEntry> auxPrefixes_ VESK_GUARDED_BY(lock_);
};

}  // namespace vesk
