// The tables of the endpoint manager: endpoints by label and by descriptor, records and prefixes,
// ports released of late. Every operation assumes that the caller holds the manager's lock, for
// reading where it is const and for writing otherwise.
//
// Nothing is destroyed here: what an operation takes out goes into a `TakenOut`, which the manager
// destroys when its lock is given back.
//
// There is one verb for each reason to take an endpoint out, and they differ in the records that
// go with it. An auxiliary flow's record is made from its owner's with its first endpoint.
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
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "net/endpoint.h"
#include "net/endpoint_tables.h"
#include "net/flow_records.h"
#include "net/released_ports.h"

namespace vesk {

/// Told of each endpoint that expires.
using ExpiryReport = std::function<void(const VeskEndpointDescriptor& endpoint)>;

/// What left the tables.
struct TakenOut {
    std::vector<EndpointPtr> endpoints;
    FlowRecords::Taken records;
    AuxPrefixEntry prefix;
};

class EndpointRegistry {
 public:
    /// `removals` grows whenever an endpoint is taken out. The manager's, since any thread reads it
    /// without the lock.
    explicit EndpointRegistry(std::atomic<std::uint64_t>& removals) : removals_(removals) {}

    /// The record of a declared label or of an auxiliary flow, which is made if need be. Null for
    /// an unknown label.
    const FlowDesc* findOrMakeFlow(std::uint32_t label) { return records_.findOrMake(label); }
    bool knowsLabel(std::uint32_t label) const { return records_.knows(label); }

    /// Files an endpoint under its label and both descriptors. 0, or -1 after logging where a
    /// descriptor is filed already; a label that has an endpoint keeps it.
    int addEndpoint(const EndpointPtr& endpoint);
    /// Files an endpoint just made, or logs that it cannot be and leaves no trace of it.
    bool addNewEndpoint(const EndpointPtr& endpoint);

    EndpointPtr findByFd(int fd) const { return byFd_.find(fd); }
    EndpointPtr findByLabel(std::uint32_t label) const { return byLabel_.find(label); }
    /// Whether it is this endpoint that its label has.
    bool isFiled(const VeskEndpointDescriptor& endpoint) const;
    const std::vector<EndpointPtr>& endpoints() const { return byLabel_.rows(); }
    bool portLeftRecently(std::uint16_t port) const { return releasedPorts_.contains(port); }

    void deleteEndpoint(std::uint32_t label, TakenOut& out);
    void undoCreation(std::uint32_t label, TakenOut& out);
    /// As undoCreation, of an endpoint that was not filed at all.
    void undoRecord(std::uint32_t label, TakenOut& out);
    /// Marks the endpoints of the chosen kinds as idle and takes out those that were already, in
    /// ascending order of labels. Each is reported before it leaves the tables, those bound to a
    /// port last.
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
    /// Each endpoint is here under its read and under its write descriptor.
    DescriptorTable byFd_;
    ReleasedPorts releasedPorts_;
    FlowRecords records_;
};

}  // namespace vesk
