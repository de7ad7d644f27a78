#include "net/endpoint_manager.h"

#include <algorithm>
#include <utility>

#include "log/log.h"
#include "net/endpoint_sockets.h"

namespace vesk {

namespace {

constexpr std::uint16_t prefixOf(std::uint32_t label) {
    return static_cast<std::uint16_t>(label >> 16);
}

/// The record of an auxiliary flow, made from that of the prefix's owner.
FlowDesc makeAuxFlow(const FlowDesc& base, std::uint32_t label) {
    FlowDesc flow = base;
    flow.isAuxFlow = 1;
    flow.label = label;
    flow.up.label = (base.upAuxFlowLabel & 0xFFFF0000U) | (label & 0xFFFFU);
    if (base.upAuxFlowAddrInfo.resolved()) {
        flow.up.addrInfo = base.upAuxFlowAddrInfo;
    }
    return flow;
}

/// The endpoint of a flow with sockets of its own, not filed yet; empty, after logging, without
/// them.
EndpointPtr openEndpoint(const FlowDesc& flow, const EndpointDeleter& deleter) {
    const int family = flow.up.addrInfo.family();
    SocketPair sockets;
    const int result = makeEndpointSocketPair(family, sockets);
    if (result != 0) {
        logError("createEndpoint: Failed to create endpoint sockets (family ", family,
                 "): ", result);
        return nullptr;
    }
    auto endpoint = std::make_unique<VeskEndpointDescriptor>(flow.label, sockets.rdsockfd.get(),
                                                             sockets.wrsockfd.get(), flow, deleter);
    sockets.rdsockfd.release();
    sockets.wrsockfd.release();
    return endpoint;
}

/// Whether what happened at `when` is no longer recent: for this long a socket that was let go may
/// hold its port.
bool isPast(std::chrono::steady_clock::time_point when, std::chrono::steady_clock::time_point now) {
    constexpr std::chrono::milliseconds recent{50};
    return now - when > recent;
}

}  // namespace

struct EndpointManager::Removed {
    std::vector<EndpointPtr> endpoints;
    /// Thousands of records, with their keys, take milliseconds to destroy.
    std::vector<decltype(labels_)::node_type> records;
    AuxPrefixEntry owned;
};

EndpointPtr EndpointManager::createEndpoint(std::uint32_t label, const EndpointDeleter& deleter) {
    // Stand before the lock: lines are written, and one that cannot be filed is released, after it.
    const LogDelay delay;
    Removed removed;
    EndpointPtr endpoint;
    const WriteLock lock(lock_);
    const FlowDesc* const flow = findOrMakeFlowLocked(label);
    if (flow == nullptr) {
        return nullptr;
    }
    endpoint = openEndpoint(*flow, deleter);
    if (endpoint && fileNewLocked(endpoint)) {
        return endpoint;
    }
    undoAuxRecordLocked(label, removed);
    return nullptr;
}

bool EndpointManager::fileNewLocked(const EndpointPtr& endpoint) {
    const int added = addEndpointLocked(endpoint);
    if (added == 0) {
        return true;
    }
    logError("createEndpoint: Failed to add new endpoint to collection: ", added);
    if (endpointsByLabel_.find(endpoint->label) == endpoint) {
        // It will never be registered for reading: left here, the label would never be answered.
        endpointsByLabel_.take(endpoint->label);
    }
    return false;
}

bool EndpointManager::knowsLabel(std::uint32_t label) const {
    const ReadLock lock(lock_);
    return labels_.contains(label) || auxPrefixes_.contains(prefixOf(label));
}

const FlowDesc* EndpointManager::findOrMakeFlowLocked(std::uint32_t label) {
    const auto declared = labels_.find(label);
    if (declared != labels_.end()) {
        return &declared->second;
    }
    const auto prefix = auxPrefixes_.find(prefixOf(label));
    if (prefix == auxPrefixes_.end()) {
        return nullptr;
    }
    const auto base = labels_.find(prefix->second.baseLabel);
    if (base == labels_.end()) {
        return nullptr;
    }
    prefix->second.auxLabels.insert(label);
    return &labels_.emplace(label, makeAuxFlow(base->second, label)).first->second;
}

int EndpointManager::addEndpoint(const EndpointPtr& endpoint) {
    const LogDelay delay;
    const WriteLock lock(lock_);
    return addEndpointLocked(endpoint);
}

int EndpointManager::addEndpointLocked(const EndpointPtr& endpoint) {
    endpointsByLabel_.insert(endpoint);
    if (!endpointsByFd_.insert(endpoint->rdsockfd, endpoint)) {
        logError("Endpoint exists for rdsockfd");
        return -1;
    }
    if (!endpointsByFd_.insert(endpoint->wrsockfd, endpoint)) {
        endpointsByFd_.erase(endpoint->rdsockfd);
        logError("Endpoint exists for wrsockfd");
        return -1;
    }
    return 0;
}

EndpointPtr EndpointManager::findEndpointByFd(int fd) const {
    const ReadLock lock(lock_);
    return endpointsByFd_.find(fd);
}

EndpointPtr EndpointManager::findEndpointByLabel(std::uint32_t label) const {
    const ReadLock lock(lock_);
    return endpointsByLabel_.find(label);
}

void EndpointManager::deleteEndpoint(std::uint32_t label) {
    Removed removed;
    const WriteLock lock(lock_);
    removeEndpointLocked(label, removed);
    keepAuxRecordLocked(label);
}

void EndpointManager::deleteEndpoint(const VeskEndpointDescriptor& endpoint) {
    Removed removed;
    const WriteLock lock(lock_);
    if (isFiledLocked(endpoint)) {
        removeEndpointLocked(endpoint.label, removed);
        keepAuxRecordLocked(endpoint.label);
    }
}

void EndpointManager::undoCreation(const VeskEndpointDescriptor& endpoint) {
    Removed removed;
    const WriteLock lock(lock_);
    if (isFiledLocked(endpoint)) {
        removeEndpointLocked(endpoint.label, removed);
        undoAuxRecordLocked(endpoint.label, removed);
    }
}

bool EndpointManager::isFiledLocked(const VeskEndpointDescriptor& endpoint) const {
    return endpointsByLabel_.find(endpoint.label).get() == &endpoint;
}

void EndpointManager::removeEndpointLocked(std::uint32_t label, Removed& removed) {
    EndpointPtr endpoint = endpointsByLabel_.take(label);
    if (!endpoint) {
        return;
    }
    unfileLocked(*endpoint);
    removed.endpoints.push_back(std::move(endpoint));
}

void EndpointManager::unfileLocked(const VeskEndpointDescriptor& endpoint) {
    endpointsByFd_.erase(endpoint.rdsockfd);
    endpointsByFd_.erase(endpoint.wrsockfd);
    removals_.fetch_add(1, std::memory_order_release);
    if (const std::uint16_t port = endpoint.boundPort.load(std::memory_order_relaxed); port != 0) {
        noteLeftPortLocked(port);
    }
}

void EndpointManager::noteLeftPortLocked(std::uint16_t port) {
    const auto now = std::chrono::steady_clock::now();
    while (!leftPorts_.empty() && isPast(leftPorts_.front().when, now)) {
        leftPorts_.pop_front();
    }
    leftPorts_.push_back({port, now});
}

bool EndpointManager::portLeftRecently(std::uint16_t port) const {
    const auto now = std::chrono::steady_clock::now();
    const ReadLock lock(lock_);
    return std::ranges::any_of(leftPorts_, [&](const LeftPort& left) {
        return left.port == port && !isPast(left.when, now);
    });
}

std::vector<EndpointPtr> EndpointManager::removeLabel(std::uint32_t label) {
    Removed removed;
    const WriteLock lock(lock_);
    removeLabelLocked(label, removed);
    return std::move(removed.endpoints);
}

void EndpointManager::removeLabelLocked(std::uint32_t label, Removed& removed) {
    removeEndpointLocked(label, removed);
    const auto record = labels_.find(label);
    if (record == labels_.end()) {
        return;
    }
    if (record->second.isAuxFlow != 0) {
        forgetAuxLabelLocked(label);
    }
    const auto prefix = auxPrefixes_.find(record->second.downAuxFlowLabelPrefix);
    if (prefix != auxPrefixes_.end() && prefix->second.baseLabel == label) {
        removed.owned = std::move(prefix->second);
        auxPrefixes_.erase(prefix);
    }
    removed.records.push_back(labels_.extract(record));
    removeAuxFlowsLocked(removed);
}

void EndpointManager::removeAuxFlowsLocked(Removed& removed) {
    const AuxPrefixEntry& owned = removed.owned;
    if (owned.auxLabels.empty()) {
        return;
    }
    for (EndpointPtr& endpoint : endpointsByLabel_.takeIf([&owned](const auto& candidate) {
             return owned.auxLabels.contains(candidate.label);
         })) {
        unfileLocked(*endpoint);
        removed.endpoints.push_back(std::move(endpoint));
    }
    for (const std::uint32_t auxLabel : owned.auxLabels) {
        removed.records.push_back(labels_.extract(auxLabel));
    }
}

void EndpointManager::keepAuxRecordLocked(std::uint32_t label) {
    const auto prefix = auxPrefixes_.find(prefixOf(label));
    if (isAuxLocked(label) && prefix != auxPrefixes_.end()) {
        prefix->second.lastingLabels.insert(label);
    }
}

void EndpointManager::undoAuxRecordLocked(std::uint32_t label, Removed& removed) {
    const auto prefix = auxPrefixes_.find(prefixOf(label));
    const bool lasts = prefix != auxPrefixes_.end() && prefix->second.lastingLabels.contains(label);
    if (!lasts && !endpointsByLabel_.contains(label)) {
        removeAuxRecordLocked(label, removed);
    }
}

void EndpointManager::removeAuxRecordLocked(std::uint32_t label, Removed& removed) {
    if (isAuxLocked(label)) {
        forgetAuxLabelLocked(label);
        removed.records.push_back(labels_.extract(label));
    }
}

void EndpointManager::forgetAuxLabelLocked(std::uint32_t label) {
    const auto prefix = auxPrefixes_.find(prefixOf(label));
    if (prefix != auxPrefixes_.end()) {
        prefix->second.auxLabels.erase(label);
        prefix->second.lastingLabels.erase(label);
    }
}

std::vector<EndpointPtr> EndpointManager::setLabel(std::uint32_t label, const FlowDesc& scratch,
                                                   const std::vector<std::string>& members) {
    const LogDelay delay;
    Removed removed;
    const WriteLock lock(lock_);
    const auto stored = labels_.find(label);
    FlowDesc flow = stored == labels_.end() ? FlowDesc(label) : stored->second;
    // Whatever made the label before, from now on it is a flow that the service declared itself.
    flow.isAuxFlow = 0;
    flow.update(scratch, members);
    removeLabelLocked(label, removed);
    registerPrefixLocked(labels_.insert_or_assign(label, std::move(flow)).first->second);
    return std::move(removed.endpoints);
}

void EndpointManager::registerPrefixLocked(const FlowDesc& flow) {
    if (flow.upAuxFlowLabel == 0 || flow.downAuxFlowLabelPrefix == 0) {
        return;
    }
    if (!auxPrefixes_.try_emplace(flow.downAuxFlowLabelPrefix, AuxPrefixEntry{flow.label, {}, {}})
             .second) {
        logWarn("setLabelAttrs: Aux. flow label prefix added more than once; ignoring; label ",
                flow.label, "; label prefix ", flow.downAuxFlowLabelPrefix);
    }
}

std::vector<EndpointPtr> EndpointManager::expireIdle(bool expireMain, bool expireAux,
                                                     const ExpiryReport& report) {
    Removed removed;
    std::vector<EndpointPtr> expired;
    const WriteLock lock(lock_);
    expired = markOrChooseLocked(expireMain, expireAux);
    for (const bool bound : {false, true}) {
        for (const EndpointPtr& endpoint : expired) {
            if (endpoint->isBound() == bound) {
                report(*endpoint);
                unfileLocked(*endpoint);
                removeAuxRecordLocked(endpoint->label, removed);
            }
        }
    }
    // All at once, since taking one out moves all that come after it.
    auto next = expired.begin();
    endpointsByLabel_.takeIf([&](const VeskEndpointDescriptor& candidate) {
        const bool isNext = next != expired.end() && next->get() == &candidate;
        next += isNext ? 1 : 0;
        return isNext;
    });
    return expired;
}

std::vector<EndpointPtr> EndpointManager::markOrChooseLocked(bool expireMain, bool expireAux) {
    std::vector<EndpointPtr> chosen;
    for (const EndpointPtr& endpoint : endpointsByLabel_.rows()) {
        const bool mayExpire = isAuxLocked(endpoint->label) ? expireAux : expireMain;
        if (mayExpire && endpoint->idle.exchange(true, std::memory_order_relaxed)) {
            chosen.push_back(endpoint);
        }
    }
    return chosen;
}

bool EndpointManager::isAuxLocked(std::uint32_t label) const {
    const auto record = labels_.find(label);
    return record != labels_.end() && record->second.isAuxFlow != 0;
}

std::vector<EndpointPtr> EndpointManager::endpoints() const {
    const ReadLock lock(lock_);
    return endpointsByLabel_.rows();
}

void EndpointManager::withoutCreation(const std::function<void()>& action) {
    const WriteLock lock(lock_);
    action();
}

}  // namespace vesk
