#include "datapath/upstream.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "context/forwarder_context.h"
#include "datapath/serving_claim.h"
#include "datapath/wire/authentication.h"
#include "datapath/wire/framing.h"
#include "datapath/wire/lateral_header.h"
#include "log/log.h"
#include "net/lifecycle/endpoint_lifecycle.h"

namespace vesk {

namespace {

/// The sockets that replies leave from, as a worker keeps them.
struct WayOut {
    KeptSlot& downstream;
    KeptSlot& lateral;
};

/// A reply in the receive buffer of the endpoint that it arrived on.
struct Reply {
    VeskEndpointDescriptor& endpoint;
    std::size_t length;
    std::size_t headerLength;
    LocalAddress localDestination;

    DatagramBuffer buffer() const { return DatagramBuffer(endpoint.receiveBuffer); }
};

/// Aims the message at the flow's last sender, if there is one, and tells, in `returnPath`, whether
/// and how that one is reached laterally. Whether requests are sent from the address that replies
/// arrive on already.
bool addressToLastSender(OutgoingMessage& message, ReturnPath& returnPath,
                         const LocalAddress& localDestination, VeskEndpointDescriptor& flow) {
    const ReadLock lock(flow.routeLock);
    message.setDestination(flow.route.peer);
    message.addTrafficClass(flow.flow.down.dscpV4, flow.flow.down.dscpV6);
    message.addSource(flow.route.local);
    returnPath = flow.route.returnPath;
    return localDestination == flow.upstreamLocal;
}

void rememberUpstreamLocal(const LocalAddress& localDestination, VeskEndpointDescriptor& flow) {
    const WriteLock lock(flow.routeLock);
    flow.upstreamLocal = localDestination;
}

/// `peerless`: no peer's datagram has passed its check yet.
enum class Verdict { send, forged, peerless, unsignable };

/// Turns the reply into the datagram that goes downstream, and addresses the message that carries
/// it.
Verdict convertForDownstream(const Reply& reply, OutgoingMessage& message, ReturnPath& returnPath,
                             VeskEndpointDescriptor& flow, const ForwarderContext& context) {
    const MutexLock lock(flow.towardsDownstream);
    if (!checkDatagram(context.framing, reply.buffer(), reply.headerLength, reply.length,
                       flow.flow.up.inHmac)) {
        return Verdict::forged;
    }
    const bool localIsKnown =
        addressToLastSender(message, returnPath, reply.localDestination, flow);
    if (!message.hasDestination()) {
        return Verdict::peerless;
    }
    if (!localIsKnown) {
        rememberUpstreamLocal(reply.localDestination, flow);
    }
    rewriteLabel(context.framing, reply.buffer(), flow.flow.down.label);
    const bool isSigned = signDatagram(context.framing, reply.buffer(), reply.headerLength,
                                       reply.length, flow.flow.down.outHmac);
    return isSigned ? Verdict::send : Verdict::unsignable;
}

void countReturned(ssize_t sent, int error, VeskEndpointDescriptor& flow,
                   ForwarderContext& context) {
    if (sent >= 1) {
        flow.counters.dnTxDg.increment();
    } else if (error != ECONNREFUSED) {
        flow.counters.dnTxDgDropped.increment();
        if (error != EAGAIN) {
            reportUpstreamNetworkError(flow, "UP_TO_DOWN_SEND:", error, context);
        }
    }
}

void sendDownstream(const Reply& reply, OutgoingMessage& message, const ReturnPath& returnPath,
                    VeskEndpointDescriptor& flow, const WayOut& wayOut, ForwarderContext& context) {
    const bool laterally =
        !returnPath.empty() && context.lateral.running.load(std::memory_order_acquire);
    const EndpointPtr& from = laterally ? wayOut.lateral.get() : wayOut.downstream.get();
    if (!from) {
        flow.counters.dnTxDgDropped.increment();
        return;
    }
    std::size_t length = reply.length;
    if (laterally) {
        const auto wrapped = addReturnHeader(reply.buffer(), reply.length, returnPath);
        if (!wrapped) {
            from->counters.txDgDropped.increment();
            return;
        }
        length = *wrapped;
    }
    message.setDatagram(reply.buffer().first(length));
    const ssize_t sent = sendmsg(from->wrsockfd, message.header(), MSG_DONTWAIT);
    countReturned(sent, errno, flow, context);
}

void returnReply(const Reply& reply, VeskEndpointDescriptor& flow, const WayOut& wayOut,
                 ForwarderContext& context) {
    OutgoingMessage message(context.ipv4Source);
    ReturnPath returnPath;
    switch (convertForDownstream(reply, message, returnPath, flow, context)) {
        case Verdict::forged:
            flow.counters.rxDgError.increment();
            break;
        case Verdict::peerless:
        case Verdict::unsignable:
            flow.counters.dnTxDgDropped.increment();
            break;
        case Verdict::send:
            sendDownstream(reply, message, returnPath, flow, wayOut, context);
            break;
    }
}

/// Whether the socket is done with for now, after a receive call that brought no datagram.
bool isDrained(const IncomingMessage& message, int error) {
    // An ICMP error that reached the socket says nothing about the next reply.
    return message.truncated() || error == EAGAIN || error == ECONNREFUSED;
}

/// Whether to read again after a receive call that failed.
bool handleReceiveFailure(VeskEndpointDescriptor& endpoint, int error, ForwarderContext& context) {
    endpoint.counters.rxDgError.increment();
    return reportUpstreamNetworkError(endpoint, "UP_RECEIVE:", error, context) == 0;
}

}  // namespace

UpstreamReceiver::UpstreamReceiver(std::shared_ptr<ForwarderContext> context)
    : context_(std::move(context)),
      arming_(*context_),
      endpoints_(*context_->endpointManager),
      downstream_(context_->downstreamEndpoint),
      lateral_(context_->lateralEndpoint) {}

bool UpstreamReceiver::serve(int socket) {
    if (endpoints_.noticeRemovals()) {
        // What is held of the endpoints removed would keep their ports from being used again.
        arming_.arm();
        arming_.forgetRemoved();
    }
    const EndpointPtr& endpoint = endpoints_.findByFd(socket);
    if (!endpoint) {
        return false;
    }
    bool again = false;
    if (endpoint->rdsockfd != socket) {
        logInfo("upstreamSocketRecv Woke up from a stale sockfd ", socket, " for upEpt label ",
                endpoint->label, " rdsockfd ", endpoint->rdsockfd, " wrsockfd ", endpoint->wrsockfd,
                ", ignored.");
    } else if (!endpoint->prepared.load(std::memory_order_acquire)) {
        again = serveUnprepared(endpoint);
    } else {
        again = serveEndpoint(endpoint);
    }
    if (!again) {
        endpoints_.letGoOfFd(socket);
    }
    return again;
}

/// Waits for the creator of the endpoint. A worker comes by an unprepared endpoint where the
/// creator is just done, or with a number left over from an earlier socket. The creator may be
/// waiting for a port of an endpoint that this worker holds, so everything is let go of first.
// NOLINTNEXTLINE(performance-unnecessary-value-param): its own reference, since all others go.
bool UpstreamReceiver::serveUnprepared(EndpointPtr endpoint) {
    letGo();
    { const MutexLock creatorIsDone(context_->endpointCreation); }
    // Otherwise it was given up.
    return endpoint->prepared.load(std::memory_order_acquire) && serveEndpoint(endpoint);
}

bool UpstreamReceiver::serveEndpoint(const EndpointPtr& endpoint) {
    ServingClaim claim(*endpoint);
    if (!claim.held()) {
        return false;
    }
    const std::uint32_t armings = endpoint->armings.load(std::memory_order_acquire);
    const ReceiveResult result = receiveNow(incoming_, *endpoint);
    if (result.received >= 1) {
        replyReceived(endpoint, static_cast<std::size_t>(result.received));
        return true;
    }
    // Given back before the socket is armed: the next worker may be at it before this one is done.
    const bool moreWanted = claim.giveBack();
    if (!isDrained(incoming_, result.error)) {
        return handleReceiveFailure(*endpoint, result.error, *context_);
    }
    if (incoming_.truncated()) {
        endpoint->counters.rxDgError.increment();
    }
    if (!moreWanted) {
        arming_.add(endpoint, armings);
    }
    return moreWanted;
}

void UpstreamReceiver::replyReceived(const EndpointPtr& endpoint, std::size_t length) {
    endpoint->counters.rxDg.increment();
    endpoint->markActive();
    const auto parsed =
        parseDatagram(context_->framing, ConstDatagramBuffer(endpoint->receiveBuffer), length);
    VeskEndpointDescriptor* const flow = parsed ? flowOfReply(*endpoint, parsed->label) : nullptr;
    if (!flow) {
        endpoint->counters.rxDgError.increment();
        return;
    }
    if (parsed->label != 0 && parsed->label != flow->label) {
        // For information only: what the reply is worth, its HMAC decides.
        flow->counters.rxDgError.increment();
    }
    if (!flow->prepared.load(std::memory_order_acquire)) {
        flow->counters.dnTxDgDropped.increment();
        return;
    }
    returnReply(
        {*endpoint, length, parsed->headerLength, incoming_.localDestination(endpoint->family)},
        *flow, {downstream_, lateral_}, *context_);
}

/// The flow that a reply belongs to: on a multiplexed socket any flow's may arrive. None for a
/// label without an endpoint.
VeskEndpointDescriptor* UpstreamReceiver::flowOfReply(VeskEndpointDescriptor& endpoint,
                                                      std::uint32_t label) {
    const bool own = !endpoint.flow.isMultiplex || label == endpoint.label;
    return own ? &endpoint : endpoints_.findByLabel(label).get();
}

std::optional<std::chrono::milliseconds> UpstreamReceiver::endPass(const LogDelay& lines) {
    arming_.arm();
    downstream_.letGo();
    lateral_.letGo();
    endpoints_.letGoOfLabels();
    if (lines.holdsLines()) {
        letGo();
    }
    return arming_.untilRetry();
}

/// Of everything that others might want while this worker waits for something else.
void UpstreamReceiver::letGo() {
    arming_.arm();
    arming_.forgetRemoved();
    downstream_.letGo();
    lateral_.letGo();
    endpoints_.letGo();
}

int upstreamSocketRecv(int socket, bool& keep, UpstreamReceiver& receiver) {
    keep = receiver.serve(socket);
    return keep ? 1 : 0;
}

int upstreamSocketSend(int /*socket*/, bool& keep) {
    logError("upstreamSocketSend", ":Not Implemented yet");
    keep = false;
    return 0;
}

}  // namespace vesk
