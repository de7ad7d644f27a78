#include "datapath/reply.h"

#include <sys/socket.h>

#include "context/forwarder_context.h"
#include "datapath/datagram_io.h"
#include "datapath/send_outcome.h"
#include "datapath/wire/authentication.h"
#include "datapath/wire/lateral_header.h"
#include "net/lifecycle/endpoint_lifecycle.h"

namespace vesk {

namespace {

/// Addresses the message to the flow's last sender, if there is one, and sets `returnPath` to that
/// sender's return path, which is empty if the sender is reached directly. Returns whether
/// `localDestination` is already the source address of datagrams sent upstream.
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

/// `peerless`: no sender is known yet.
enum class ReplyVerdict { send, forged, peerless, unsignable };

/// Checks, relabels and signs the reply, and addresses the message that sends it downstream.
ReplyVerdict convertForDownstream(const Reply& reply, OutgoingMessage& message,
                                  ReturnPath& returnPath, VeskEndpointDescriptor& flow,
                                  const ForwarderContext& context) {
    const MutexLock lock(flow.towardsDownstream);
    if (!checkDatagram(context.framing, reply.buffer(), reply.headerLength, reply.length,
                       flow.flow.up.inHmac)) {
        return ReplyVerdict::forged;
    }
    const bool localIsKnown =
        addressToLastSender(message, returnPath, reply.localDestination, flow);
    if (!message.hasDestination()) {
        return ReplyVerdict::peerless;
    }
    if (!localIsKnown) {
        rememberUpstreamLocal(reply.localDestination, flow);
    }
    rewriteLabel(context.framing, reply.buffer(), flow.flow.down.label);
    const bool isSigned = signDatagram(context.framing, reply.buffer(), reply.headerLength,
                                       reply.length, flow.flow.down.outHmac);
    return isSigned ? ReplyVerdict::send : ReplyVerdict::unsignable;
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
    // One byte suffices: a partial send counts as sent.
    const SendResult result = sendMessage(message, from->wrsockfd, MSG_DONTWAIT, 1);
    countSend(result.outcome, flow.counters.dnTxDg, flow.counters.dnTxDgDropped);
    if (result.outcome == SendOutcome::failed) {
        reportUpstreamNetworkError(flow, "UP_TO_DOWN_SEND:", result.error, context);
    }
}

}  // namespace

void returnReply(const Reply& reply, VeskEndpointDescriptor& flow, const WayOut& wayOut,
                 ForwarderContext& context) {
    OutgoingMessage message(context.ipv4Source);
    ReturnPath returnPath;
    switch (convertForDownstream(reply, message, returnPath, flow, context)) {
        case ReplyVerdict::forged:
            flow.counters.rxDgError.increment();
            break;
        case ReplyVerdict::peerless:
        case ReplyVerdict::unsignable:
            flow.counters.dnTxDgDropped.increment();
            break;
        case ReplyVerdict::send:
            sendDownstream(reply, message, returnPath, flow, wayOut, context);
            break;
    }
}

}  // namespace vesk
