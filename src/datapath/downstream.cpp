#include "datapath/downstream.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <ios>
#include <optional>

#include "context/forwarder_context.h"
#include "datapath/datagram_io.h"
#include "datapath/wire/authentication.h"
#include "datapath/wire/framing.h"
#include "datapath/wire/lateral_header.h"
#include "log/log.h"
#include "net/endpoint_manager.h"
#include "net/lifecycle/endpoint_lifecycle.h"
#include "net/socket_options.h"
#include "net/upstream_binding.h"
#include "poll/poll_channel.h"

namespace vesk {

namespace {

/// Counts a datagram that reaches no flow. It is the downstream endpoint's affair, whichever way it
/// came; without one it is the affair of the endpoint it came in by.
void countRejected(const ReceivedDatagram& datagram, ForwarderContext& context) {
    if (datagram.returnPath.empty()) {
        datagram.endpoint.counters.rxDgError.increment();
        return;
    }
    const EndpointPtr downstream = context.downstreamEndpoint.load();
    (downstream ? *downstream : datagram.endpoint).counters.rxDgError.increment();
}

// ---- Handing over to another instance ----

/// The index of the instance that owns the label, where that is another one than this.
std::optional<std::uint32_t> foreignOwner(const LateralStream& lateral, std::uint32_t label) {
    if (!lateral.running.load(std::memory_order_acquire)) {
        return std::nullopt;
    }
    const std::uint32_t instances = lateral.maxQels;
    if (instances == 0) {
        return std::nullopt;
    }
    const std::uint32_t owner = (label >> 16) % instances;
    if (owner == lateral.index) {
        return std::nullopt;
    }
    return owner;
}

std::optional<std::size_t> wrapForOwner(const ReceivedDatagram& datagram, LateralStream& lateral) {
    const MutexLock lock(lateral.signingLock);
    return addLateralHeader(datagram.endpoint.receiveBuffer, datagram.length, datagram.sender,
                            lateral.signingKey);
}

void sendToOwner(const ReceivedDatagram& datagram, std::size_t length,
                 const SocketAddress& ownerAddress, VeskEndpointDescriptor& lateralEndpoint) {
    OutgoingMessage message;
    message.setDatagram(std::span(datagram.endpoint.receiveBuffer).first(length));
    message.setDestination(ownerAddress);
    const ssize_t sent = sendmsg(lateralEndpoint.wrsockfd, message.header(), 0);
    if (sent == static_cast<ssize_t>(length)) {
        lateralEndpoint.counters.txDg.increment();
    } else if (sent != -1 || errno != ECONNREFUSED) {
        lateralEndpoint.counters.txDgDropped.increment();
    }
}

void handOverToOwner(const ReceivedDatagram& datagram, std::uint32_t owner,
                     ForwarderContext& context) {
    const auto port = static_cast<std::uint16_t>(context.lateral.port);
    const auto ownerAddress = context.lateral.peers.find(owner, port);
    const EndpointPtr lateralEndpoint = context.lateralEndpoint.load();
    // A datagram makes at most one hop: instances that disagree about owners must not play ball.
    if (!datagram.returnPath.empty() || !ownerAddress || !lateralEndpoint) {
        countRejected(datagram, context);
        return;
    }
    const std::optional<std::size_t> length = wrapForOwner(datagram, context.lateral);
    if (!length) {
        lateralEndpoint->counters.txDgDropped.increment();
        return;
    }
    sendToOwner(datagram, *length, *ownerAddress, *lateralEndpoint);
}

// ---- The flow's endpoint ----

struct FlowEndpoint {
    EndpointPtr endpoint;
    /// Made for this very datagram.
    bool created = false;
};

bool registerWithPollLoop(const VeskEndpointDescriptor& endpoint, const ForwarderContext& context) {
    const int result = pollLoop_add_fd(context.pollSocket.get(), endpoint.rdsockfd, EPOLLIN);
    if (result != 0) {
        logError("Failed to add upstream endpoint's READ sockfd ", endpoint.rdsockfd,
                 " to pollLoop, error: ", result);
    }
    return result == 0;
}

/// Sets up the sockets of a new endpoint; false, after logging, where it is of no use.
bool prepareEndpoint(VeskEndpointDescriptor& endpoint, const ForwarderContext& context) {
    if (endpoint.flow.isMultiplex) {
        setReusePort(endpoint.rdsockfd);
        setReusePort(endpoint.wrsockfd);
    }
    Vesk_setSocketBuf(endpoint.rdsockfd, SO_RCVBUF, receiveBufferSize);
    Vesk_setSocketBuf(endpoint.wrsockfd, SO_SNDBUF, sendBufferSize);
    Vesk_requestLocalDestAddr(endpoint.rdsockfd, endpoint.family);
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
    // Asked first, since creation keeps all others from the tables, and anybody can make up labels.
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

/// The label's endpoint, ready for use; made, where there is none yet.
FlowEndpoint findOrCreateFlowEndpoint(std::uint32_t label, ForwarderContext& context) {
    EndpointPtr endpoint = context.endpointManager->findEndpointByLabel(label);
    if (endpoint && endpoint->prepared.load(std::memory_order_acquire)) {
        return {std::move(endpoint)};
    }
    // Written when the endpoint is ready for use and the lock is given back: a worker and the other
    // receive thread may be waiting for both.
    const LogDelay delay;
    const MutexLock lock(context.endpointCreation);
    endpoint = context.endpointManager->findEndpointByLabel(label);
    if (endpoint) {
        return {std::move(endpoint)};
    }
    return createFlowEndpoint(label, context);
}

// ---- The flow ----

bool isKnownRoute(const ReceivedDatagram& datagram, const VeskEndpointDescriptor& flow,
                  bool lateralRuns) VESK_REQUIRES_SHARED(flow.routeLock) {
    return datagram.sender == flow.route.peer && datagram.localDestination == flow.route.local &&
           (!lateralRuns || datagram.returnPath == flow.route.returnPath);
}

/// Aims the message at the flow's upstream service. Whether the datagram came by the route that is
/// known.
bool addressToUpstream(OutgoingMessage& message, const ReceivedDatagram& datagram,
                       VeskEndpointDescriptor& flow, bool lateralRuns) {
    message.setDestination(flow.flow.up.addrInfo.socketAddress());
    message.addTrafficClass(flow.flow.up.dscpV4, flow.flow.up.dscpV6);
    const ReadLock lock(flow.routeLock);
    message.addSource(flow.upstreamLocal);
    return isKnownRoute(datagram, flow, lateralRuns);
}

/// Replies go to the last sender, from the address its datagram arrived on, the way it came.
void rememberRoute(const ReceivedDatagram& datagram, VeskEndpointDescriptor& flow,
                   bool lateralRuns) {
    const WriteLock lock(flow.routeLock);
    flow.route.peer = datagram.sender;
    flow.route.local = datagram.localDestination;
    if (lateralRuns) {
        flow.route.returnPath = datagram.returnPath;
    }
}

/// `forgedFirst`: the endpoint was made for it, and nothing else has passed there; it is given up.
enum class Verdict { forward, forged, forgedFirst, unsignable, flowGivenUp };

/// Turns the datagram into the one that goes upstream, and addresses the message that carries it.
Verdict convertForUpstream(const ReceivedDatagram& datagram, std::size_t headerLength,
                           OutgoingMessage& message, const FlowEndpoint& found,
                           const ForwarderContext& context) {
    VeskEndpointDescriptor& flow = *found.endpoint;
    const DatagramBuffer buffer(datagram.endpoint.receiveBuffer);
    const MutexLock lock(flow.towardsUpstream);
    if (flow.trial == Trial::failed) {
        return Verdict::flowGivenUp;
    }
    if (!checkDatagram(context.framing, buffer, headerLength, datagram.length,
                       flow.flow.down.inHmac)) {
        if (!found.created || flow.trial == Trial::passed) {
            return Verdict::forged;
        }
        flow.trial = Trial::failed;
        return Verdict::forgedFirst;
    }
    flow.trial = Trial::passed;
    const bool lateralRuns = context.lateral.running.load(std::memory_order_acquire);
    if (!addressToUpstream(message, datagram, flow, lateralRuns)) {
        rememberRoute(datagram, flow, lateralRuns);
    }
    rewriteLabel(context.framing, buffer, flow.flow.up.label);
    const bool isSigned =
        signDatagram(context.framing, buffer, headerLength, datagram.length, flow.flow.up.outHmac);
    return isSigned ? Verdict::forward : Verdict::unsignable;
}

void sendUpstream(const ReceivedDatagram& datagram, OutgoingMessage& message,
                  VeskEndpointDescriptor& flow, ForwarderContext& context) {
    message.setDatagram(std::span(datagram.endpoint.receiveBuffer).first(datagram.length));
    const ssize_t sent = sendmsg(flow.wrsockfd, message.header(), 0);
    const int error = errno;
    if (sent == static_cast<ssize_t>(datagram.length)) {
        flow.counters.txDg.increment();
        flow.markActive();
    } else if (sent != -1 || error != ECONNREFUSED) {
        flow.counters.txDgDropped.increment();
        if (sent != -1 || error != EAGAIN) {
            reportUpstreamNetworkError(flow, "DOWN_TO_UP_SEND:", error, context);
        }
    }
}

void refuseForged(const ReceivedDatagram& datagram, ForwarderContext& context) {
    countRejected(datagram, context);
    // Kept: no level, no time stamp, and nothing between the routine's name and the text.
    writeToStandardOutput("downstreamPacketReceivedFailed HMAC Check!\n");
}

/// Hands the datagram to its label's flow. False where that flow's endpoint was given up while it
/// was looked up: a datagram that went out by it would have no way back, and its count would be
/// lost.
bool passToFlow(const ReceivedDatagram& datagram, const ParsedDatagram& parsed,
                ForwarderContext& context) {
    const FlowEndpoint flow = findOrCreateFlowEndpoint(parsed.label, context);
    if (!flow.endpoint) {
        countRejected(datagram, context);
        return true;
    }
    OutgoingMessage message(context.ipv4Source);
    switch (convertForUpstream(datagram, parsed.headerLength, message, flow, context)) {
        case Verdict::flowGivenUp:
            // Whoever gave it up may not have come to that yet.
            context.endpointManager->undoCreation(*flow.endpoint);
            return false;
        case Verdict::forgedFirst:
            // Gone by the time that it is said, so that whoever reads it finds the label as it was.
            context.endpointManager->undoCreation(*flow.endpoint);
            [[fallthrough]];
        case Verdict::forged:
            refuseForged(datagram, context);
            break;
        case Verdict::unsignable:
            flow.endpoint->counters.txDgDropped.increment();
            break;
        case Verdict::forward:
            sendUpstream(datagram, message, *flow.endpoint, context);
            break;
    }
    return true;
}

}  // namespace

void downstreamEptRecv(const std::shared_ptr<ForwarderContext>& context,
                       const EndpointPtr& endpoint) {
    IncomingMessage message;
    while (true) {
        const std::size_t length = awaitDatagram(message, *endpoint, "downstream");
        if (length != 0) {
            downstreamPacketReceived({*endpoint,
                                      length,
                                      message.sender(),
                                      message.localDestination(endpoint->family),
                                      {}},
                                     *context);
        }
    }
}

void downstreamPacketReceived(const ReceivedDatagram& datagram, ForwarderContext& context) {
    const auto parsed = parseDatagram(
        context.framing, ConstDatagramBuffer(datagram.endpoint.receiveBuffer), datagram.length);
    if (!parsed) {
        countRejected(datagram, context);
        return;
    }
    if (const auto owner = foreignOwner(context.lateral, parsed->label)) {
        handOverToOwner(datagram, *owner, context);
        return;
    }
    while (!passToFlow(datagram, *parsed, context)) {
        // Its endpoint was just given up by the other receive thread; the next one is ours.
    }
}

}  // namespace vesk
