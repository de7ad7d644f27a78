#include "datapath/flow_endpoint.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <ios>
#include <utility>

#include "context/forwarder_context.h"
#include "log/log.h"
#include "net/endpoint_manager.h"
#include "net/lifecycle/endpoint_lifecycle.h"
#include "net/socket_options.h"
#include "net/upstream_binding.h"
#include "poll/poll_channel.h"

namespace vesk {

namespace {

bool registerWithPollLoop(const VeskEndpointDescriptor& endpoint, const ForwarderContext& context) {
    const int result = pollLoop_add_fd(context.pollSocket.get(), endpoint.rdsockfd, EPOLLIN);
    if (result != 0) {
        logError("Failed to add upstream endpoint's READ sockfd ", endpoint.rdsockfd,
                 " to pollLoop, error: ", result);
    }
    return result == 0;
}

/// Sets up the sockets of a new endpoint. False, after logging, if the endpoint cannot be used.
bool prepareEndpoint(VeskEndpointDescriptor& endpoint, const ForwarderContext& context) {
    if (endpoint.flow.isMultiplex) {
        setReusePort(endpoint.rdsockfd);
        setReusePort(endpoint.wrsockfd);
    }
    Vesk_setSocketBuf(endpoint.rdsockfd, SO_RCVBUF, receiveBufferSize);
    Vesk_setSocketBuf(endpoint.wrsockfd, SO_SNDBUF, sendBufferSize);
    Vesk_requestLocalDestAddr(endpoint.rdsockfd, endpoint.family);
    requestMergedDatagrams(endpoint.rdsockfd);
    if (!offersSegmentation(endpoint.wrsockfd)) {
        endpoint.segmentLimit = 0;
    }
    if (!bindUpstreamSocket(endpoint, *context.endpointManager) ||
        !registerWithPollLoop(endpoint, context)) {
        return false;
    }
    endpoint.prepared.store(true, std::memory_order_release);
    logInfo("Created", endpoint.flow.isMultiplex ? " multiplexed " : " ",
            "upstream endpoint:", " label 0x", std::hex, endpoint.label, "/", std::dec,
            endpoint.label, " sockfds ", endpoint.rdsockfd, " ", endpoint.wrsockfd);
    return true;
}

FlowEndpoint createFlowEndpoint(std::uint32_t label, ForwarderContext& context) {
    EndpointManager& manager = *context.endpointManager;
    // Checked first, since creation takes the write lock, and anybody can send invented labels.
    EndpointPtr endpoint = manager.knowsLabel(label)
                               ? manager.createEndpoint(label, upstreamEndpointDeleter(context))
                               : nullptr;
    if (!endpoint) {
        logDebug("Failed to create upstream endpoint with label ", label);
        return {};
    }
    if (!prepareEndpoint(*endpoint, context)) {
        manager.undoCreation(*endpoint);
        return {};
    }
    return {std::move(endpoint), true};
}

/// The label's endpoint if it is ready for use. One that is not ready is not held: the caller waits
/// for its creator, who may make the label's next endpoint first and need the port of this one.
EndpointPtr findPreparedEndpoint(std::uint32_t label, const ForwarderContext& context) {
    EndpointPtr endpoint = context.endpointManager->findEndpointByLabel(label);
    return endpoint && endpoint->prepared.load(std::memory_order_acquire) ? endpoint : nullptr;
}

}  // namespace

FlowEndpoint findOrCreateFlowEndpoint(std::uint32_t label, ForwarderContext& context) {
    if (EndpointPtr endpoint = findPreparedEndpoint(label, context)) {
        return {std::move(endpoint)};
    }
    // Lines are written after the endpoint is ready and the lock is released, since a worker and
    // the other receive thread may wait for both.
    const LogDelay delay;
    const MutexLock lock(context.endpointCreation);
    EndpointPtr endpoint = context.endpointManager->findEndpointByLabel(label);
    if (endpoint) {
        return {std::move(endpoint)};
    }
    return createFlowEndpoint(label, context);
}

}  // namespace vesk
