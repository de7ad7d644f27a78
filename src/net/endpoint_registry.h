// The tables of the endpoint manager: endpoints by label and by descriptor, records, prefixes, and
// recently released ports. Used only by the manager, on any thread. Each operation assumes that the
// caller holds the manager's lock, for reading if it is const and for writing otherwise.
//
// Nothing is destroyed here: what an operation takes out goes into a `TakenOut`, which the manager
// destroys after it has released its lock.
//
// There is one function for each reason to take an endpoint out. They differ in the records that
// are removed with it. The record of an auxiliary flow is made, from its owner's, with its first
// endpoint.
//
//   deleteEndpoint   it failed: no record is removed
//   undoCreation     it is unusable, or its first datagram was forged: the record of an auxiliary
//                    flow is removed if it was made with this endpoint. Otherwise anybody could
//                    make records pile up by sending invented labels
//   expireIdle       it was idle: the record of an auxiliary flow is removed
//   removeLabel      "del": the label's record is removed; with an owner's record also its prefix,
//                    and its auxiliary flows with their endpoints and records
//   setLabel         "set": as removeLabel, and a merged record replaces the old one
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "net/endpoint.h"
#include "net/endpoint_tables.h"
#include "net/flow_records.h"
#include "net/released_ports.h"

namespace vesk {

/// Called for each endpoint that expires, under the manager's lock.
using ExpiryReport = std::function<void(const VeskEndpointDescriptor& endpoint)>;

/// What an operation took out of the tables.
struct TakenOut {
    std::vector<EndpointPtr> endpoints;
    FlowRecords::Taken records;
    AuxPrefixEntry prefix;
};

class EndpointRegistry {
 public:
    /// `removals` is incremented whenever an endpoint is taken out. The manager owns it, since any
    /// thread reads it without the lock.
    explicit EndpointRegistry(std::atomic<std::uint64_t>& removals) : removals_(removals) {}

    /// The record of a declared label or of an auxiliary flow; the latter is made if it does not
    /// exist. Null for an unknown label.
    const FlowDesc* findOrMakeFlow(std::uint32_t label) { return records_.findOrMake(label); }
    bool knowsLabel(std::uint32_t label) const { return records_.knows(label); }

    /// Files an endpoint under its label and both descriptors. 0, or -1, after logging, if a
    /// descriptor is already filed. A label that has an endpoint keeps it.
    int addEndpoint(const EndpointPtr& endpoint);
    /// Files a new endpoint. False, after logging, if that fails; the endpoint is then in no table.
    bool addNewEndpoint(const EndpointPtr& endpoint);

    EndpointPtr findByFd(int fd) const { return byFd_.find(fd); }
    EndpointPtr findByLabel(std::uint32_t label) const { return byLabel_.find(label); }
    /// Whether this very endpoint is filed under its label.
    bool isFiled(const VeskEndpointDescriptor& endpoint) const;
    const std::vector<EndpointPtr>& endpoints() const { return byLabel_.rows(); }
    bool portLeftRecently(std::uint16_t port) const { return releasedPorts_.contains(port); }

    void deleteEndpoint(std::uint32_t label, TakenOut& out);
    void undoCreation(std::uint32_t label, TakenOut& out);
    /// As undoCreation, for an endpoint that was never filed.
    void undoRecord(std::uint32_t label, TakenOut& out);
    /// Marks the endpoints of the chosen kinds as idle and takes out those that were already
    /// marked, in ascending order of labels. Each is reported before it leaves the tables,
    /// endpoints bound to a port last.
    void expireIdle(bool expireMain, bool expireAux, const ExpiryReport& report, TakenOut& out);
    void removeLabel(std::uint32_t label, TakenOut& out);
    void setLabel(std::uint32_t label, const FlowDesc& scratch,
                  const std::vector<std::string>& members, TakenOut& out);

 private:
    void takeEndpoint(std::uint32_t label, TakenOut& out);
    void takeAuxEndpoints(TakenOut& out);
    void unfileDescriptors(const VeskEndpointDescriptor& endpoint);
    std::vector<EndpointPtr> markOrChoose(bool expireMain, bool expireAux) const;

    std::atomic<std::uint64_t>& removals_;
    LabelTable byLabel_;
    /// Has each endpoint twice: under its read and its write descriptor.
    DescriptorTable byFd_;
    ReleasedPorts releasedPorts_;
    FlowRecords records_;
};

}  // namespace vesk
