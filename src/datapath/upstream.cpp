#include "datapath/upstream.h"

#include <cerrno>
#include <utility>

#include "context/forwarder_context.h"
#include "datapath/flow_prefetch.h"
#include "datapath/serving_claim.h"
#include "datapath/wire/framing.h"
#include "log/log.h"
#include "net/lifecycle/endpoint_lifecycle.h"

namespace vesk {

namespace {

/// The fewest messages worth a receive call: with less room the replies are sent first.
constexpr std::size_t leastRoom = 16;

/// Whether the socket has no more datagrams for now, after a receive call with this error.
bool isDrained(int error) {
    // ECONNREFUSED comes from an ICMP message and does not affect the next reply.
    return error == EAGAIN || error == ECONNREFUSED;
}

}  // namespace

UpstreamReceiver::UpstreamReceiver(std::shared_ptr<ForwarderContext> context)
    : context_(std::move(context)),
      replies_(*context_),
      arming_(*context_),
      endpoints_(*context_->endpointManager) {}

UpstreamReceiver::Served UpstreamReceiver::serve(int socket) {
    if (endpoints_.noticeRemovals()) {
        letGo();
    }
    const EndpointPtr& endpoint = endpoints_.findByFd(socket);
    if (!endpoint) {
        return {};
    }
    Served served;
    if (endpoint->rdsockfd != socket) {
        logInfo("upstreamSocketRecv Woke up from a stale sockfd ", socket, " for upEpt label ",
                endpoint->label, " rdsockfd ", endpoint->rdsockfd, " wrsockfd ", endpoint->wrsockfd,
                ", ignored.");
    } else if (!endpoint->prepared.load(std::memory_order_acquire)) {
        served = serveUnprepared(socket);
    } else {
        served = serveEndpoint(endpoint);
    }
    if (!served.again) {
        endpoints_.endFd(socket);
    }
    return served;
}

/// Waits for the creator of the socket's endpoint. A worker finds an unprepared endpoint if the
/// creator is about to finish, or if it has a descriptor number left over from an earlier socket.
/// The creator may wait for the port of an endpoint that this worker holds, so all endpoints are
/// released first. The endpoint is then looked up again, so that it is held until its replies have
/// been sent.
UpstreamReceiver::Served UpstreamReceiver::serveUnprepared(int socket) {
    letGo();
    { const MutexLock creatorIsDone(context_->endpointCreation); }
    const EndpointPtr& endpoint = endpoints_.findByFd(socket);
    if (!endpoint || !endpoint->prepared.load(std::memory_order_acquire)) {
        // It was removed.
        return {};
    }
    return serveEndpoint(endpoint);
}

UpstreamReceiver::Served UpstreamReceiver::serveEndpoint(const EndpointPtr& endpoint) {
    if (!claimServing(*endpoint, this)) {
        return {};
    }
    if (batch_.room() < leastRoom) {
        sendReplies();
    }
    prefetchTowardsDownstream(*endpoint);
    const std::size_t asked = batch_.room();
    const std::uint32_t armings = endpoint->armings.load(std::memory_order_acquire);
    const int received = batch_.receiveNow(endpoint->rdsockfd);
    const int datagrams = handleMessages(received, *endpoint);
    if (received == static_cast<int>(asked)) {
        return {datagrams, true};
    }
    if (received < 0 && !isDrained(-received)) {
        endpoint->counters.rxDgError.increment();
        const bool stays =
            reportUpstreamNetworkError(*endpoint, "UP_RECEIVE:", -received, *context_) == 0;
        return {0, stays};
    }
    arm(endpoint, armings);
    return {datagrams, false};
}

/// Handles the messages of the last receive call. Returns the number of datagrams in them.
int UpstreamReceiver::handleMessages(int received, VeskEndpointDescriptor& endpoint) {
    int datagrams = 0;
    for (int i = 0; i < received; ++i) {
        const ReceivedMessage message =
            batch_.message(static_cast<std::size_t>(i), endpoint.family);
        for (std::size_t k = 0; k < message.datagramCount(); ++k) {
            replyReceived(message, k, endpoint);
            ++datagrams;
        }
    }
    return datagrams;
}

void UpstreamReceiver::replyReceived(const ReceivedMessage& message, std::size_t index,
                                     VeskEndpointDescriptor& endpoint) {
    const DatagramBuffer buffer = message.datagram(index);
    const std::size_t length = message.datagramLength(index);
    endpoint.counters.rxDg.increment();
    endpoint.markActive();
    const auto parsed = parseDatagram(context_->framing, buffer, length);
    VeskEndpointDescriptor* const flow = parsed ? flowOfReply(endpoint, parsed->label) : nullptr;
    if (!flow) {
        endpoint.counters.rxDgError.increment();
        return;
    }
    if (parsed->label != 0 && parsed->label != flow->label) {
        // Counted for information only. The HMAC decides whether the reply is accepted.
        flow->counters.rxDgError.increment();
    }
    if (!flow->prepared.load(std::memory_order_acquire)) {
        flow->counters.dnTxDgDropped.increment();
        return;
    }
    replies_.returnReply({buffer, length, parsed->headerLength, message.localDestination()}, *flow);
}

/// The flow that a reply belongs to. On a multiplexed socket replies of other flows may arrive too.
/// Null for a label without an endpoint, and for an endpoint that was removed after its datagrams
/// were received.
VeskEndpointDescriptor* UpstreamReceiver::flowOfReply(VeskEndpointDescriptor& endpoint,
                                                      std::uint32_t label) {
    const bool own = !endpoint.flow.isMultiplex || label == endpoint.label;
    VeskEndpointDescriptor* const flow = own ? &endpoint : endpoints_.findByLabel(label).get();
    return flow != nullptr && endpoints_.isCurrent(*flow) ? flow : nullptr;
}

/// Adds a drained socket to those to be armed. Replies that arrived on a socket are sent before it
/// is armed: another worker may then serve it, and must not overtake them.
void UpstreamReceiver::arm(const EndpointPtr& endpoint, std::uint32_t armings) {
    if (arming_.full()) {
        sendReplies();
        arming_.arm();
    }
    arming_.add(endpoint, armings);
}

/// Sends the replies held, and frees their buffers.
void UpstreamReceiver::sendReplies() {
    replies_.sendHeld();
    batch_.clear();
}

std::optional<std::chrono::milliseconds> UpstreamReceiver::endPass(const LogDelay& lines) {
    sendReplies();
    arming_.arm();
    replies_.letGo();
    endpoints_.letGoOfEnded();
    if (lines.holdsLines()) {
        letGo();
    }
    return arming_.untilRetry();
}

/// Releases all that other threads may need while this worker waits.
void UpstreamReceiver::letGo() {
    sendReplies();
    arming_.arm();
    arming_.forgetRemoved();
    replies_.letGo();
    endpoints_.letGo();
}

int upstreamSocketRecv(int socket, bool& keep, UpstreamReceiver& receiver) {
    const UpstreamReceiver::Served served = receiver.serve(socket);
    keep = served.again;
    return served.datagrams;
}

int upstreamSocketSend(int /*socket*/, bool& keep) {
    logError("upstreamSocketSend", ":Not Implemented yet");
    keep = false;
    return 0;
}

}  // namespace vesk
