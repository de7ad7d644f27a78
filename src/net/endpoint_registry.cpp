#include "net/endpoint_registry.h"

#include <utility>

#include "log/log.h"

namespace vesk {

int EndpointRegistry::addEndpoint(const EndpointPtr& endpoint) {
    byLabel_.insert(endpoint);
    if (!byFd_.insert(endpoint->rdsockfd, endpoint)) {
        logError("Endpoint exists for rdsockfd");
        return -1;
    }
    if (!byFd_.insert(endpoint->wrsockfd, endpoint)) {
        byFd_.erase(endpoint->rdsockfd);
        logError("Endpoint exists for wrsockfd");
        return -1;
    }
    return 0;
}

bool EndpointRegistry::addNewEndpoint(const EndpointPtr& endpoint) {
    const int added = addEndpoint(endpoint);
    if (added == 0) {
        return true;
    }
    logError("createEndpoint: Failed to add new endpoint to collection: ", added);
    if (isFiled(*endpoint)) {
        // It will never be registered for reading. If it stayed, no reply of the label would be
        // read.
        byLabel_.take(endpoint->label);
    }
    return false;
}

bool EndpointRegistry::isFiled(const VeskEndpointDescriptor& endpoint) const {
    return byLabel_.find(endpoint.label).get() == &endpoint;
}

void EndpointRegistry::deleteEndpoint(std::uint32_t label, TakenOut& out) {
    takeEndpoint(label, out);
    records_.keepAux(label);
}

void EndpointRegistry::undoCreation(std::uint32_t label, TakenOut& out) {
    takeEndpoint(label, out);
    undoRecord(label, out);
}

void EndpointRegistry::undoRecord(std::uint32_t label, TakenOut& out) {
    if (!records_.isKept(label) && !byLabel_.contains(label)) {
        records_.takeAux(label, out.records);
    }
}

void EndpointRegistry::expireIdle(bool expireMain, bool expireAux, const ExpiryReport& report,
                                  TakenOut& out) {
    std::vector<EndpointPtr>& expired = out.endpoints;
    expired = markOrChoose(expireMain, expireAux);
    for (const bool bound : {false, true}) {
        for (const EndpointPtr& endpoint : expired) {
            if (endpoint->isBound() == bound) {
                report(*endpoint);
                unfileDescriptors(*endpoint);
                records_.takeAux(endpoint->label, out.records);
            }
        }
    }
    // All in one pass, since each removal moves all rows behind it.
    auto next = expired.begin();
    byLabel_.takeIf([&](const VeskEndpointDescriptor& candidate) {
        const bool isNext = next != expired.end() && next->get() == &candidate;
        next += isNext ? 1 : 0;
        return isNext;
    });
}

std::vector<EndpointPtr> EndpointRegistry::markOrChoose(bool expireMain, bool expireAux) const {
    std::vector<EndpointPtr> chosen;
    for (const EndpointPtr& endpoint : byLabel_.rows()) {
        const bool mayExpire = records_.isAux(endpoint->label) ? expireAux : expireMain;
        if (mayExpire && endpoint->idle.exchange(true, std::memory_order_relaxed)) {
            chosen.push_back(endpoint);
        }
    }
    return chosen;
}

void EndpointRegistry::removeLabel(std::uint32_t label, TakenOut& out) {
    takeEndpoint(label, out);
    out.prefix = records_.take(label, out.records);
    takeAuxEndpoints(out);
}

void EndpointRegistry::setLabel(std::uint32_t label, const FlowDesc& scratch,
                                const std::vector<std::string>& members, TakenOut& out) {
    const FlowDesc* const stored = records_.find(label);
    FlowDesc flow = stored == nullptr ? FlowDesc(label) : *stored;
    // The label may have been an auxiliary flow. From now on it is a flow that the service
    // declared.
    flow.isAuxFlow = 0;
    flow.update(scratch, members);
    removeLabel(label, out);
    records_.put(std::move(flow));
}

void EndpointRegistry::takeEndpoint(std::uint32_t label, TakenOut& out) {
    if (EndpointPtr endpoint = byLabel_.take(label)) {
        unfileDescriptors(*endpoint);
        out.endpoints.push_back(std::move(endpoint));
    }
}

/// Takes out the endpoints of the prefix that was taken out.
void EndpointRegistry::takeAuxEndpoints(TakenOut& out) {
    const auto& auxLabels = out.prefix.auxLabels;
    if (auxLabels.empty()) {
        return;
    }
    for (EndpointPtr& endpoint : byLabel_.takeIf(
             [&auxLabels](const auto& candidate) { return auxLabels.contains(candidate.label); })) {
        unfileDescriptors(*endpoint);
        out.endpoints.push_back(std::move(endpoint));
    }
}

/// Removes both descriptors of an endpoint that is taken out, and counts the removal.
void EndpointRegistry::unfileDescriptors(const VeskEndpointDescriptor& endpoint) {
    byFd_.erase(endpoint.rdsockfd);
    byFd_.erase(endpoint.wrsockfd);
    removals_.fetch_add(1, std::memory_order_release);
    if (const std::uint16_t port = endpoint.boundPort.load(std::memory_order_relaxed); port != 0) {
        releasedPorts_.add(port);
    }
}

}  // namespace vesk
