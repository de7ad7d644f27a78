#include "datapath/reply.h"

#include <sys/socket.h>

#include <algorithm>
#include <span>

#include "context/forwarder_context.h"
#include "datapath/wire/authentication.h"
#include "datapath/wire/lateral_header.h"
#include "net/lifecycle/endpoint_lifecycle.h"

namespace vesk {

namespace {

SendBatch::Settle settleInto(ForwarderContext& context) {
    return
        [&context](VeskEndpointDescriptor& flow, const SendResult& result, std::size_t datagrams) {
            countSend(result.outcome, flow.counters.dnTxDg, flow.counters.dnTxDgDropped, datagrams);
            if (result.outcome == SendOutcome::failed) {
                reportUpstreamNetworkError(flow, "UP_TO_DOWN_SEND:", result.error, context);
            }
        };
}

}  // namespace

// One byte of a reply suffices: a partial send counts as sent.
ReplySender::ReplySender(ForwarderContext& context)
    : context_(context),
      downstream_(context.downstreamEndpoint),
      lateral_(context.lateralEndpoint),
      toPeers_(MSG_DONTWAIT, false, settleInto(context)),
      toInstances_(MSG_DONTWAIT, false, settleInto(context)) {}

void ReplySender::returnReply(const Reply& reply, VeskEndpointDescriptor& flow) {
    ReplyRoute route;
    switch (convert(reply, route, flow)) {
        case Verdict::forged:
            flow.counters.rxDgError.increment();
            break;
        case Verdict::peerless:
        case Verdict::unsignable:
            flow.counters.dnTxDgDropped.increment();
            break;
        case Verdict::accepted:
            hold(reply, route, flow);
            break;
    }
}

/// Checks, relabels and signs the reply, and reads the route on which it is sent.
ReplySender::Verdict ReplySender::convert(const Reply& reply, ReplyRoute& route,
                                          VeskEndpointDescriptor& flow) const {
    const MutexLock lock(flow.towardsDownstream);
    if (!checkDatagram(context_.framing, reply.buffer, reply.headerLength, reply.length,
                       flow.flow.up.inHmac)) {
        return Verdict::forged;
    }
    route = flow.route.load();
    if (route.peer.length == 0) {
        return Verdict::peerless;
    }
    if (flow.upstreamLocal.load() != reply.localDestination) {
        flow.upstreamLocal.store(reply.localDestination);
    }
    rewriteLabel(context_.framing, reply.buffer, flow.flow.down.label);
    const bool isSigned = signDatagram(context_.framing, reply.buffer, reply.headerLength,
                                       reply.length, flow.flow.down.outHmac);
    return isSigned ? Verdict::accepted : Verdict::unsignable;
}

void ReplySender::hold(const Reply& reply, const ReplyRoute& route, VeskEndpointDescriptor& flow) {
    if (!route.returnPath.empty() && context_.lateral.running.load(std::memory_order_acquire)) {
        holdForInstance(reply, route, flow);
        return;
    }
    if (!downstream_.get()) {
        flow.counters.dnTxDgDropped.increment();
        return;
    }
    if (toPeers_.full()) {
        sendHeld();
    }
    address(toPeers_.nextRoute(), route, flow);
    toPeers_.add(reply.buffer.first(reply.length), flow);
}

/// Holds the reply, with a lateral header, for the instance that forwarded the last sender's
/// datagram.
void ReplySender::holdForInstance(const Reply& reply, const ReplyRoute& route,
                                  VeskEndpointDescriptor& flow) {
    const EndpointPtr& lateral = lateral_.get();
    if (!lateral) {
        flow.counters.dnTxDgDropped.increment();
        return;
    }
    if (toInstances_.full()) {
        sendHeld();
    }
    if (!wrapped_) {
        wrapped_ = std::make_unique<std::array<Wrapped, SendBatch::capacity>>();
    }
    Wrapped& buffer = wrapped_->at(wrappedCount_);
    std::ranges::copy(reply.buffer.first(reply.length), buffer.begin());
    const auto length = addReturnHeader(buffer, reply.length, route.returnPath);
    if (!length) {
        lateral->counters.txDgDropped.increment();
        return;
    }
    ++wrappedCount_;
    address(toInstances_.nextRoute(), route, flow);
    toInstances_.add(std::span(buffer).first(*length), flow);
}

void ReplySender::address(OutgoingMessage& message, const ReplyRoute& route,
                          const VeskEndpointDescriptor& flow) const {
    message.setDestination(route.peer);
    message.addTrafficClass(flow.flow.down.dscpV4, flow.flow.down.dscpV6);
    message.addSource(route.local, context_.ipv4Source);
}

void ReplySender::sendHeld() {
    sendFrom(downstream_, toPeers_);
    sendFrom(lateral_, toInstances_);
    wrappedCount_ = 0;
}

/// Sends the replies from the slot's endpoint. Without one they are dropped.
void ReplySender::sendFrom(CachedSlot& slot, SendBatch& replies) {
    if (replies.empty()) {
        return;
    }
    if (const EndpointPtr& from = slot.get()) {
        replies.sendFrom(*from);
    } else {
        replies.settleAll({SendOutcome::noRoom, 0});
    }
}

void ReplySender::letGo() {
    downstream_.letGo();
    lateral_.letGo();
}

}  // namespace vesk
