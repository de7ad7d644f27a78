#include "net/endpoint_manager.h"

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

}  // namespace

EndpointPtr EndpointManager::createEndpoint(std::uint32_t label, const EndpointDeleter& deleter) {
    // Stands before the lock, so that one that cannot be filed is released after it.
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
    forgetAuxFlowLocked(label);
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
    RemovedEndpoints removed;
    const WriteLock lock(lock_);
    takeOutLocked(label, removed);
}

void EndpointManager::deleteEndpoint(const VeskEndpointDescriptor& endpoint) {
    RemovedEndpoints removed;
    const WriteLock lock(lock_);
    if (endpointsByLabel_.find(endpoint.label).get() == &endpoint) {
        takeOutLocked(endpoint.label, removed);
    }
}

void EndpointManager::takeOutLocked(std::uint32_t label, RemovedEndpoints& removed) {
    removeEndpointLocked(label, removed);
    forgetAuxFlowLocked(label);
}

void EndpointManager::removeEndpointLocked(std::uint32_t label, RemovedEndpoints& removed) {
    EndpointPtr endpoint = endpointsByLabel_.take(label);
    if (!endpoint) {
        return;
    }
    unfileLocked(*endpoint);
    removed.push_back(std::move(endpoint));
}

void EndpointManager::unfileLocked(const VeskEndpointDescriptor& endpoint) {
    endpointsByFd_.erase(endpoint.rdsockfd);
    endpointsByFd_.erase(endpoint.wrsockfd);
}

void EndpointManager::removeLabel(std::uint32_t label) {
    RemovedEndpoints removed;
    const WriteLock lock(lock_);
    removeLabelLocked(label, removed);
}

void EndpointManager::removeLabelLocked(std::uint32_t label, RemovedEndpoints& removed) {
    removeEndpointLocked(label, removed);
    const auto record = labels_.find(label);
    if (record == labels_.end()) {
        return;
    }
    if (record->second.isAuxFlow != 0) {
        forgetAuxLabelLocked(label);
    }
    AuxPrefixEntry owned;
    const auto prefix = auxPrefixes_.find(record->second.downAuxFlowLabelPrefix);
    if (prefix != auxPrefixes_.end() && prefix->second.baseLabel == label) {
        owned = std::move(prefix->second);
        auxPrefixes_.erase(prefix);
    }
    labels_.erase(record);
    removeAuxFlowsLocked(owned, removed);
}

void EndpointManager::removeAuxFlowsLocked(const AuxPrefixEntry& owned, RemovedEndpoints& removed) {
    if (owned.auxLabels.empty()) {
        return;
    }
    for (EndpointPtr& endpoint : endpointsByLabel_.takeIf([&owned](const auto& candidate) {
             return owned.auxLabels.contains(candidate.label);
         })) {
        unfileLocked(*endpoint);
        removed.push_back(std::move(endpoint));
    }
    for (const std::uint32_t auxLabel : owned.auxLabels) {
        labels_.erase(auxLabel);
    }
}

void EndpointManager::forgetAuxFlowLocked(std::uint32_t label) {
    if (isAuxLocked(label) && !endpointsByLabel_.contains(label)) {
        forgetAuxLabelLocked(label);
        labels_.erase(label);
    }
}

void EndpointManager::forgetAuxLabelLocked(std::uint32_t label) {
    const auto prefix = auxPrefixes_.find(prefixOf(label));
    if (prefix != auxPrefixes_.end()) {
        prefix->second.auxLabels.erase(label);
    }
}

void EndpointManager::setLabel(std::uint32_t label, const FlowDesc& scratch,
                               const std::vector<std::string>& members) {
    RemovedEndpoints removed;
    const WriteLock lock(lock_);
    const auto stored = labels_.find(label);
    FlowDesc flow = stored == labels_.end() ? FlowDesc(label) : stored->second;
    // Whatever made the label before, from now on it is a flow that the service declared itself.
    flow.isAuxFlow = 0;
    flow.update(scratch, members);
    removeLabelLocked(label, removed);
    registerPrefixLocked(labels_.insert_or_assign(label, std::move(flow)).first->second);
}

void EndpointManager::registerPrefixLocked(const FlowDesc& flow) {
    if (flow.upAuxFlowLabel == 0 || flow.downAuxFlowLabelPrefix == 0) {
        return;
    }
    if (!auxPrefixes_.try_emplace(flow.downAuxFlowLabelPrefix, AuxPrefixEntry{flow.label, {}})
             .second) {
        logWarn("setLabelAttrs: Aux. flow label prefix added more than once; ignoring; label ",
                flow.label, "; label prefix ", flow.downAuxFlowLabelPrefix);
    }
}

std::vector<EndpointPtr> EndpointManager::expireIdle(bool expireMain, bool expireAux) {
    RemovedEndpoints expired;
    const WriteLock lock(lock_);
    const auto markOrChoose = [&](VeskEndpointDescriptor& endpoint) VESK_REQUIRES(lock_) {
        const bool mayExpire = isAuxLocked(endpoint.label) ? expireAux : expireMain;
        return mayExpire && endpoint.idle.exchange(true, std::memory_order_relaxed);
    };
    expired = endpointsByLabel_.takeIf(markOrChoose);
    for (const EndpointPtr& endpoint : expired) {
        unfileLocked(*endpoint);
        forgetAuxFlowLocked(endpoint->label);
    }
    return expired;
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
