#include "datapath/downstream.h"

#include <span>

#include "context/forwarder_context.h"
#include "datapath/datagram_io.h"
#include "datapath/flow_endpoint.h"
#include "datapath/lateral_handover.h"
#include "datapath/send_outcome.h"
#include "datapath/wire/authentication.h"
#include "datapath/wire/framing.h"
#include "log/log.h"
#include "net/endpoint_manager.h"
#include "net/lifecycle/endpoint_lifecycle.h"

namespace vesk {

namespace {

/// Counts a datagram that reaches no flow. It is counted on the downstream endpoint, also if it
/// arrived over the lateral stream; without a downstream endpoint, on the endpoint on which it
/// arrived.
void countRejected(const ReceivedDatagram& datagram, ForwarderContext& context) {
    if (datagram.returnPath.empty()) {
        datagram.endpoint.counters.rxDgError.increment();
        return;
    }
    const EndpointPtr downstream = context.downstreamEndpoint.load();
    (downstream ? *downstream : datagram.endpoint).counters.rxDgError.increment();
}

bool isKnownRoute(const ReceivedDatagram& datagram, const VeskEndpointDescriptor& flow,
                  bool lateralRuns) VESK_REQUIRES_SHARED(flow.routeLock) {
    return datagram.sender == flow.route.peer && datagram.localDestination == flow.route.local &&
           (!lateralRuns || datagram.returnPath == flow.route.returnPath);
}

/// Addresses the message to the flow's upstream service. Returns whether the datagram came by the
/// stored route.
bool addressToUpstream(OutgoingMessage& message, const ReceivedDatagram& datagram,
                       VeskEndpointDescriptor& flow, bool lateralRuns) {
    message.setDestination(flow.flow.up.addrInfo.socketAddress());
    message.addTrafficClass(flow.flow.up.dscpV4, flow.flow.up.dscpV6);
    const ReadLock lock(flow.routeLock);
    message.addSource(flow.upstreamLocal);
    return isKnownRoute(datagram, flow, lateralRuns);
}

/// Stores the datagram's route. Replies are sent to the last sender, from the address on which its
/// datagram arrived, and over the lateral stream if the datagram came over it.
void rememberRoute(const ReceivedDatagram& datagram, VeskEndpointDescriptor& flow,
                   bool lateralRuns) {
    const WriteLock lock(flow.routeLock);
    flow.route.peer = datagram.sender;
    flow.route.local = datagram.localDestination;
    if (lateralRuns) {
        flow.route.returnPath = datagram.returnPath;
    }
}

/// `forgedFirst`: the endpoint was made for this forged datagram, and no other has passed its
/// check; the endpoint is removed.
enum class RequestVerdict { forward, forged, forgedFirst, unsignable, flowGivenUp };

/// Checks, relabels and signs the datagram, and addresses the message that sends it upstream.
RequestVerdict convertForUpstream(const ReceivedDatagram& datagram, std::size_t headerLength,
                                  OutgoingMessage& message, const FlowEndpoint& found,
                                  const ForwarderContext& context) {
    VeskEndpointDescriptor& flow = *found.endpoint;
    const DatagramBuffer buffer(datagram.endpoint.receiveBuffer);
    const MutexLock lock(flow.towardsUpstream);
    if (flow.trial == Trial::failed) {
        return RequestVerdict::flowGivenUp;
    }
    if (!checkDatagram(context.framing, buffer, headerLength, datagram.length,
                       flow.flow.down.inHmac)) {
        if (!found.created || flow.trial == Trial::passed) {
            return RequestVerdict::forged;
        }
        flow.trial = Trial::failed;
        return RequestVerdict::forgedFirst;
    }
    flow.trial = Trial::passed;
    const bool lateralRuns = context.lateral.running.load(std::memory_order_acquire);
    if (!addressToUpstream(message, datagram, flow, lateralRuns)) {
        rememberRoute(datagram, flow, lateralRuns);
    }
    rewriteLabel(context.framing, buffer, flow.flow.up.label);
    const bool isSigned =
        signDatagram(context.framing, buffer, headerLength, datagram.length, flow.flow.up.outHmac);
    return isSigned ? RequestVerdict::forward : RequestVerdict::unsignable;
}

void sendUpstream(const ReceivedDatagram& datagram, OutgoingMessage& message,
                  VeskEndpointDescriptor& flow, ForwarderContext& context) {
    message.setDatagram(std::span(datagram.endpoint.receiveBuffer).first(datagram.length));
    const SendResult result = sendMessage(message, flow.wrsockfd, 0, datagram.length);
    countSend(result.outcome, flow.counters.txDg, flow.counters.txDgDropped);
    if (result.outcome == SendOutcome::sent) {
        flow.markActive();
    } else if (result.outcome == SendOutcome::failed) {
        reportUpstreamNetworkError(flow, "DOWN_TO_UP_SEND:", result.error, context);
    }
}

void refuseForged(const ReceivedDatagram& datagram, ForwarderContext& context) {
    countRejected(datagram, context);
    // Kept: no level, and nothing between the routine's name and the text.
    writeToStandardOutput("downstreamPacketReceivedFailed HMAC Check!\n");
}

/// Passes the datagram to its label's flow. False if the endpoint found was removed meanwhile,
/// because its first datagram was forged. A datagram sent by it would get no reply, and its count
/// would be lost.
bool passToFlow(const ReceivedDatagram& datagram, const ParsedDatagram& parsed,
                ForwarderContext& context) {
    const FlowEndpoint flow = findOrCreateFlowEndpoint(parsed.label, context);
    if (!flow.endpoint) {
        countRejected(datagram, context);
        return true;
    }
    OutgoingMessage message(context.ipv4Source);
    switch (convertForUpstream(datagram, parsed.headerLength, message, flow, context)) {
        case RequestVerdict::flowGivenUp:
            // The thread that found the forged datagram may not have removed the endpoint yet.
            context.endpointManager->undoCreation(*flow.endpoint);
            return false;
        case RequestVerdict::forgedFirst:
            // Removed before the failure is logged, so that a reader of the log finds the label
            // unchanged.
            context.endpointManager->undoCreation(*flow.endpoint);
            [[fallthrough]];
        case RequestVerdict::forged:
            refuseForged(datagram, context);
            break;
        case RequestVerdict::unsignable:
            flow.endpoint->counters.txDgDropped.increment();
            break;
        case RequestVerdict::forward:
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
        if (!handOverToOwner(datagram, *owner, context)) {
            countRejected(datagram, context);
        }
        return;
    }
    while (!passToFlow(datagram, *parsed, context)) {
        // The other receive thread has just removed the endpoint; the next one is made by this
        // thread.
    }
}

}  // namespace vesk
