#include "datapath/upstream.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <utility>

#include "app/forwarder_context.h"
#include "datapath/authentication.h"
#include "datapath/datagram_io.h"
#include "datapath/framing.h"
#include "datapath/lateral_header.h"
#include "log/log.h"
#include "net/endpoint_lifecycle.h"
#include "net/endpoint_manager.h"
#include "poll/poll_channel.h"

namespace vesk {

namespace {

/// The right to use an endpoint's receive buffer. A worker may come by a descriptor number that it
/// kept from an endpoint now gone; whoever serves the number's new owner must not be disturbed.
class ServingClaim {
 public:
    explicit ServingClaim(VeskEndpointDescriptor& endpoint)
        : endpoint_(endpoint), held_(claimOrAskForMore(endpoint.serving)) {}
    ~ServingClaim() { giveBack(); }
    ServingClaim(const ServingClaim&) = delete;
    ServingClaim& operator=(const ServingClaim&) = delete;

    bool held() const { return held_; }

    /// Ends the claim. True where another worker came meanwhile: its wake-up is not to be lost, so
    /// the socket has to be read once more.
    bool giveBack() {
        return std::exchange(held_, false) &&
               endpoint_.serving.exchange(Serving::nobody, std::memory_order_acq_rel) ==
                   Serving::moreWanted;
    }

 private:
    /// Whether the claim is ours; where it is another's, that one is told to go on.
    static bool claimOrAskForMore(std::atomic<Serving>& serving) {
        Serving state = Serving::nobody;
        while (!serving.compare_exchange_weak(
            state, state == Serving::nobody ? Serving::claimed : Serving::moreWanted,
            std::memory_order_acq_rel, std::memory_order_acquire)) {
        }
        return state == Serving::nobody;
    }

    VeskEndpointDescriptor& endpoint_;
    bool held_;
};

/// A reply in the receive buffer of the endpoint that it arrived on.
struct Reply {
    VeskEndpointDescriptor& endpoint;
    std::size_t length;
    std::size_t headerLength;
    SocketAddress localDestination;

    DatagramBuffer buffer() const { return DatagramBuffer(endpoint.receiveBuffer); }
};

/// Aims the message at the flow's last sender and tells, in `returnPath`, whether and how that one
/// is reached laterally. Whether requests are sent from the address that replies arrive on already.
bool addressToLastSender(OutgoingMessage& message, ReturnPath& returnPath,
                         const SocketAddress& localDestination, VeskEndpointDescriptor& flow) {
    const ReadLock lock(flow.routeLock);
    message.setDestination(flow.route.peer);
    message.addTrafficClass(flow.flow.down.dscpV4, flow.flow.down.dscpV6);
    message.addSource(flow.route.local);
    returnPath = flow.route.returnPath;
    return localDestination == flow.upstreamLocal;
}

void rememberUpstreamLocal(const SocketAddress& localDestination, VeskEndpointDescriptor& flow) {
    const WriteLock lock(flow.routeLock);
    flow.upstreamLocal = localDestination;
}

enum class Verdict { send, forged, unsignable };

/// Turns the reply into the datagram that goes downstream, and addresses the message that carries
/// it.
Verdict convertForDownstream(const Reply& reply, OutgoingMessage& message, ReturnPath& returnPath,
                             VeskEndpointDescriptor& flow, const ForwarderContext& context) {
    const MutexLock lock(flow.towardsDownstream);
    if (!checkDatagram(context.framing, reply.buffer(), reply.headerLength, reply.length,
                       flow.flow.up.inHmac)) {
        return Verdict::forged;
    }
    if (!addressToLastSender(message, returnPath, reply.localDestination, flow)) {
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
                    VeskEndpointDescriptor& flow, ForwarderContext& context) {
    const bool laterally =
        !returnPath.empty() && context.lateral.running.load(std::memory_order_acquire);
    ssize_t sent = -1;
    int error = 0;
    {
        // Let go before anything is logged: "stop" waits for whoever still sends from it.
        const EndpointPtr from =
            laterally ? context.lateralEndpoint.load() : context.downstreamEndpoint.load();
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
        sent = sendmsg(from->wrsockfd, message.header(), MSG_DONTWAIT);
        error = errno;
    }
    countReturned(sent, error, flow, context);
}

void returnReply(const Reply& reply, VeskEndpointDescriptor& flow, ForwarderContext& context) {
    OutgoingMessage message;
    ReturnPath returnPath;
    switch (convertForDownstream(reply, message, returnPath, flow, context)) {
        case Verdict::forged:
            flow.counters.rxDgError.increment();
            break;
        case Verdict::unsignable:
            flow.counters.dnTxDgDropped.increment();
            break;
        case Verdict::send:
            sendDownstream(reply, message, returnPath, flow, context);
            break;
    }
}

/// The flow that a reply belongs to: on a multiplexed socket any flow's may arrive. None for a
/// label without an endpoint.
EndpointPtr flowOfReply(const EndpointPtr& endpoint, std::uint32_t label,
                        const ForwarderContext& context) {
    return endpoint->flow.isMultiplex ? context.endpointManager->findEndpointByLabel(label)
                                      : endpoint;
}

void replyReceived(const EndpointPtr& endpoint, std::size_t length, const IncomingMessage& message,
                   ForwarderContext& context) {
    endpoint->counters.rxDg.increment();
    endpoint->markActive();
    const auto parsed =
        parseDatagram(context.framing, ConstDatagramBuffer(endpoint->receiveBuffer), length);
    const EndpointPtr flow = parsed ? flowOfReply(endpoint, parsed->label, context) : nullptr;
    if (!flow) {
        endpoint->counters.rxDgError.increment();
        return;
    }
    if (parsed->label != 0 && parsed->label != flow->label) {
        // For information only: what the reply is worth, its HMAC decides.
        flow->counters.rxDgError.increment();
    }
    returnReply(
        {*endpoint, length, parsed->headerLength, message.localDestination(endpoint->family)},
        *flow, context);
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
    : context_(std::move(context)) {
    drained_.reserve(maxPollRecords);
}

bool UpstreamReceiver::serve(const EndpointPtr& endpoint) {
    ServingClaim claim(*endpoint);
    if (!claim.held()) {
        return false;
    }
    const ReceiveResult result = receiveNow(incoming_, *endpoint);
    if (result.received >= 1) {
        replyReceived(endpoint, static_cast<std::size_t>(result.received), incoming_, *context_);
        return true;
    }
    // Given back before the socket is armed: the next worker may be at it before this one is done.
    if (claim.giveBack()) {
        return true;
    }
    if (!isDrained(incoming_, result.error)) {
        return handleReceiveFailure(*endpoint, result.error, *context_);
    }
    if (incoming_.truncated()) {
        endpoint->counters.rxDgError.increment();
    }
    drained_.push_back(endpoint);
    if (drained_.size() == maxPollRecords) {
        armDrained();
    }
    return false;
}

void UpstreamReceiver::endPass(std::vector<int>& serving) {
    armDrained();
    serving.insert(serving.end(), unarmed_.begin(), unarmed_.end());
    unarmed_.clear();
}

void UpstreamReceiver::armDrained() {
    if (drained_.size() > 1 && armTogether()) {
        drained_.clear();
        return;
    }
    // One by one also where a row of them failed: that is to cost no more flows than it strikes.
    for (const EndpointPtr& endpoint : drained_) {
        arm(*endpoint);
    }
    drained_.clear();
}

bool UpstreamReceiver::armTogether() const {
    std::array<int, maxPollRecords> fds;
    std::ranges::transform(drained_, fds.begin(),
                           [](const EndpointPtr& endpoint) { return endpoint->rdsockfd; });
    return pollLoop_mod_fds(context_->pollSocket.get(), std::span(fds).first(drained_.size()),
                            EPOLLIN) == 0;
}

void UpstreamReceiver::arm(const VeskEndpointDescriptor& endpoint) {
    const int result = pollLoop_mod_fd(context_->pollSocket.get(), endpoint.rdsockfd, EPOLLIN);
    if (result != 0 && reportUpstreamNetworkError(endpoint, "Re-add UpEpt recv sockfd to poll set:",
                                                  -result, *context_) == 0) {
        unarmed_.push_back(endpoint.rdsockfd);
    }
}

int upstreamSocketRecv(int socket, bool& keep, UpstreamReceiver& receiver) {
    keep = false;
    const EndpointPtr endpoint = receiver.context().endpointManager->findEndpointByFd(socket);
    if (!endpoint) {
        return 0;
    }
    if (endpoint->rdsockfd != socket) {
        logInfo("upstreamSocketRecv Woke up from a stale sockfd ", socket, " for upEpt label ",
                endpoint->label, " rdsockfd ", endpoint->rdsockfd, " wrsockfd ", endpoint->wrsockfd,
                ", ignored.");
        return 0;
    }
    if (!endpoint->prepared.load(std::memory_order_acquire)) {
        // Its creator has yet to register the socket, or is just done: look again in a moment.
        keep = true;
        return 0;
    }
    keep = receiver.serve(endpoint);
    return keep ? 1 : 0;
}

int upstreamSocketSend(int /*socket*/, bool& keep) {
    logError("upstreamSocketSend", ":Not Implemented yet");
    keep = false;
    return 0;
}

}  // namespace vesk
