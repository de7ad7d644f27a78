#include "net/endpoint_manager.h"

#include <utility>

#include "log/log.h"
#include "net/endpoint_sockets.h"

namespace vesk {

namespace {

/// Makes the endpoint of a flow with its sockets, not yet in any table. Empty, after logging, if
/// the sockets cannot be made.
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

// A function that takes something out of the tables declares the delay of its log lines, and the
// object that it takes out, before the lock: destructors run in reverse order, so the lock is
// released first.

EndpointPtr EndpointManager::createEndpoint(std::uint32_t label, const EndpointDeleter& deleter) {
    const LogDelay delay;
    TakenOut out;
    EndpointPtr endpoint;
    const WriteLock lock(lock_);
    const FlowDesc* const flow = registry_.findOrMakeFlow(label);
    if (flow == nullptr) {
        return nullptr;
    }
    endpoint = openEndpoint(*flow, deleter);
    if (endpoint && registry_.addNewEndpoint(endpoint)) {
        return endpoint;
    }
    registry_.undoRecord(label, out);
    return nullptr;
}

bool EndpointManager::knowsLabel(std::uint32_t label) const {
    const ReadLock lock(lock_);
    return registry_.knowsLabel(label);
}

int EndpointManager::addEndpoint(const EndpointPtr& endpoint) {
    const LogDelay delay;
    const WriteLock lock(lock_);
    return registry_.addEndpoint(endpoint);
}

EndpointPtr EndpointManager::findEndpointByFd(int fd) const {
    const ReadLock lock(lock_);
    return registry_.findByFd(fd);
}

EndpointPtr EndpointManager::findEndpointByLabel(std::uint32_t label) const {
    const ReadLock lock(lock_);
    return registry_.findByLabel(label);
}

void EndpointManager::deleteEndpoint(std::uint32_t label) {
    TakenOut out;
    const WriteLock lock(lock_);
    registry_.deleteEndpoint(label, out);
}

void EndpointManager::deleteEndpoint(const VeskEndpointDescriptor& endpoint) {
    TakenOut out;
    const WriteLock lock(lock_);
    if (registry_.isFiled(endpoint)) {
        registry_.deleteEndpoint(endpoint.label, out);
    }
}

void EndpointManager::undoCreation(const VeskEndpointDescriptor& endpoint) {
    TakenOut out;
    const WriteLock lock(lock_);
    if (registry_.isFiled(endpoint)) {
        registry_.undoCreation(endpoint.label, out);
    }
}

std::vector<EndpointPtr> EndpointManager::setLabel(std::uint32_t label, const FlowDesc& scratch,
                                                   const std::vector<std::string>& members) {
    const LogDelay delay;
    TakenOut out;
    const WriteLock lock(lock_);
    registry_.setLabel(label, scratch, members, out);
    return std::move(out.endpoints);
}

std::vector<EndpointPtr> EndpointManager::removeLabel(std::uint32_t label) {
    TakenOut out;
    const WriteLock lock(lock_);
    registry_.removeLabel(label, out);
    return std::move(out.endpoints);
}

std::vector<EndpointPtr> EndpointManager::expireIdle(bool expireMain, bool expireAux,
                                                     const ExpiryReport& report) {
    TakenOut out;
    const WriteLock lock(lock_);
    registry_.expireIdle(expireMain, expireAux, report, out);
    return std::move(out.endpoints);
}

std::vector<EndpointPtr> EndpointManager::endpoints() const {
    const ReadLock lock(lock_);
    return registry_.endpoints();
}

bool EndpointManager::portLeftRecently(std::uint16_t port) const {
    const ReadLock lock(lock_);
    return registry_.portLeftRecently(port);
}

void EndpointManager::withoutCreation(const std::function<void()>& action) {
    const WriteLock lock(lock_);
    action();
}

}  // namespace vesk
