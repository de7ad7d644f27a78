#include "datapath/downstream.h"

#include <utility>

#include "context/forwarder_context.h"
#include "datapath/flow_endpoint.h"
#include "datapath/flow_prefetch.h"
#include "datapath/lateral_handover.h"
#include "datapath/receive_thread.h"
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

/// Addresses the message to the flow's upstream service.
void addressToUpstream(OutgoingMessage& message, const VeskEndpointDescriptor& flow,
                       Ipv4Source ipv4Source) {
    message.setDestination(flow.flow.up.addrInfo.socketAddress());
    message.addTrafficClass(flow.flow.up.dscpV4, flow.flow.up.dscpV6);
    message.addSource(flow.upstreamLocal.load(), ipv4Source);
}

/// Stores the datagram's route if it is a new one. Replies are sent to the last sender, from the
/// address on which its datagram arrived, and over the lateral stream if the datagram came over it.
void rememberRoute(const ReceivedDatagram& datagram, VeskEndpointDescriptor& flow, bool lateralRuns)
    VESK_REQUIRES(flow.towardsUpstream) {
    const ReplyRoute known = flow.route.load();
    const ReplyRoute current{datagram.sender, datagram.localDestination,
                             lateralRuns ? datagram.returnPath : known.returnPath};
    if (current != known) {
        flow.route.store(current);
    }
}

/// Checks, relabels and signs the datagram, and addresses the message that sends it upstream.
/// `created`: the endpoint was made for this datagram.
RequestVerdict convertForUpstream(const ReceivedDatagram& datagram, std::size_t headerLength,
                                  OutgoingMessage& message, VeskEndpointDescriptor& flow,
                                  bool created, const ForwarderContext& context) {
    const MutexLock lock(flow.towardsUpstream);
    if (flow.trial == Trial::failed) {
        return RequestVerdict::flowGivenUp;
    }
    if (!checkDatagram(context.framing, datagram.buffer, headerLength, datagram.length,
                       flow.flow.down.inHmac)) {
        if (!created || flow.trial == Trial::passed) {
            return RequestVerdict::forged;
        }
        flow.trial = Trial::failed;
        return RequestVerdict::forgedFirst;
    }
    flow.trial = Trial::passed;
    addressToUpstream(message, flow, context.ipv4Source);
    rememberRoute(datagram, flow, context.lateral.running.load(std::memory_order_acquire));
    rewriteLabel(context.framing, datagram.buffer, flow.flow.up.label);
    const bool isSigned = signDatagram(context.framing, datagram.buffer, headerLength,
                                       datagram.length, flow.flow.up.outHmac);
    return isSigned ? RequestVerdict::forward : RequestVerdict::unsignable;
}

}  // namespace

DownstreamReceiver::DownstreamReceiver(ForwarderContext& context)
    : context_(context),
      flows_(*context.endpointManager),
      removals_(*context.endpointManager),
      held_(0, true,
            [this](VeskEndpointDescriptor& flow, const SendResult& result, std::size_t datagrams) {
                settle(flow, result, datagrams);
            }) {}

void DownstreamReceiver::receive(const ReceivedDatagram& datagram) {
    const auto parsed = parse(datagram);
    if (!parsed) {
        countRejected(datagram, context_);
        return;
    }
    if (const auto owner = foreignOwner(context_.lateral, parsed->label)) {
        if (!handOverToOwner(datagram, *owner, context_)) {
            countRejected(datagram, context_);
        }
        return;
    }
    while (!passToFlow(datagram, *parsed)) {
        // The other receive thread has just removed the endpoint; the next one is made by this
        // thread.
    }
}

std::optional<ParsedDatagram> DownstreamReceiver::parse(const ReceivedDatagram& datagram) {
    const LogDelay lines;
    const auto parsed = parseDatagram(context_.framing, datagram.buffer, datagram.length);
    releaseBefore(lines);
    return parsed;
}

/// Passes the datagram to its label's flow. False if the endpoint found was removed meanwhile,
/// because its first datagram was forged. A datagram sent by it would get no reply, and its count
/// would be lost.
bool DownstreamReceiver::passToFlow(const ReceivedDatagram& datagram,
                                    const ParsedDatagram& parsed) {
    const Flow found = findFlow(parsed.label);
    if (found.endpoint == nullptr) {
        countRejected(datagram, context_);
        return true;
    }
    const RequestVerdict verdict = holdForUpstream(datagram, parsed.headerLength, found);
    if (verdict == RequestVerdict::forged || verdict == RequestVerdict::forgedFirst) {
        countRejected(datagram, context_);
        endBatch();
        // Kept: no level, and nothing between the routine's name and the text.
        writeToStandardOutput("downstreamPacketReceivedFailed HMAC Check!\n");
    }
    return verdict != RequestVerdict::flowGivenUp;
}

/// Converts the datagram and holds it if it is valid; otherwise removes what it has left behind.
RequestVerdict DownstreamReceiver::holdForUpstream(const ReceivedDatagram& datagram,
                                                   std::size_t headerLength, const Flow& found) {
    VeskEndpointDescriptor& flow = *found.endpoint;
    const LogDelay lines;
    makeRoomFor(flow);
    const RequestVerdict verdict = convertForUpstream(datagram, headerLength, held_.nextRoute(),
                                                      flow, found.created, context_);
    switch (verdict) {
        // The thread that found the forged datagram may not have removed the endpoint yet.
        case RequestVerdict::flowGivenUp:
        // Before the failure is logged, so that a reader of the log finds the label unchanged.
        case RequestVerdict::forgedFirst:
            context_.endpointManager->undoCreation(flow);
            break;
        case RequestVerdict::forged:
            break;
        case RequestVerdict::unsignable:
            flow.counters.txDgDropped.increment();
            break;
        case RequestVerdict::forward:
            held_.add(datagram.buffer.first(datagram.length), flow);
            break;
    }
    releaseBefore(lines);
    return verdict;
}

/// The label's endpoint, made if there is none.
DownstreamReceiver::Flow DownstreamReceiver::findFlow(std::uint32_t label) {
    if (removals_.noticeRemovals()) {
        endBatch();
    }
    const EndpointPtr& kept = flows_.find(label);
    if (kept && kept->prepared.load(std::memory_order_acquire)) {
        prefetchTowardsUpstream(*kept);
        return {kept.get(), false};
    }
    return createFlow(label);
}

DownstreamReceiver::Flow DownstreamReceiver::createFlow(std::uint32_t label) {
    // The creation is logged. Endpoints are released before, and also because the new socket may
    // need the port of one of them.
    endBatch();
    FlowEndpoint found = findOrCreateFlowEndpoint(label, context_);
    return {flows_.keep(label, std::move(found.endpoint)).get(), found.created};
}

/// To be called if lines are about to be written, which may block until the log's reader reads.
void DownstreamReceiver::releaseBefore(const LogDelay& lines) {
    if (lines.holdsLines()) {
        endBatch();
    }
}

/// Makes room for a datagram of this flow.
void DownstreamReceiver::makeRoomFor(VeskEndpointDescriptor& flow) {
    if (heldFlow_ != &flow || held_.full()) {
        sendHeld();
        heldFlow_ = &flow;
    }
}

void DownstreamReceiver::sendHeld() {
    if (!held_.empty()) {
        held_.sendFrom(*heldFlow_);
    }
}

void DownstreamReceiver::settle(VeskEndpointDescriptor& flow, const SendResult& result,
                                std::size_t datagrams) {
    countSend(result.outcome, flow.counters.txDg, flow.counters.txDgDropped, datagrams);
    if (result.outcome == SendOutcome::sent) {
        flow.markActive();
    } else if (result.outcome == SendOutcome::failed) {
        reportUpstreamNetworkError(flow, "DOWN_TO_UP_SEND:", result.error, context_);
    }
}

void DownstreamReceiver::endBatch() {
    sendHeld();
    heldFlow_ = nullptr;
    flows_.letGo();
}

void downstreamEptRecv(const std::shared_ptr<ForwarderContext>& context,
                       const EndpointPtr& endpoint) {
    DownstreamReceiver receiver(*context);
    serveListener(*endpoint, {"downstream",
                              [&receiver](const ReceivedDatagram& datagram) {
                                  downstreamPacketReceived(datagram, receiver);
                              },
                              [&receiver] { receiver.endBatch(); }});
}

void downstreamPacketReceived(const ReceivedDatagram& datagram, DownstreamReceiver& receiver) {
    receiver.receive(datagram);
}

}  // namespace vesk
