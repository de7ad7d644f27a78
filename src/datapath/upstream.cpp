#include "datapath/upstream.h"

#include <cerrno>
#include <utility>

#include "context/forwarder_context.h"
#include "datapath/reply.h"
#include "datapath/serving_claim.h"
#include "datapath/wire/framing.h"
#include "log/log.h"
#include "net/lifecycle/endpoint_lifecycle.h"

namespace vesk {

namespace {

/// Whether the socket has no more datagrams for now, after a receive call that returned none.
bool isDrained(const IncomingMessage& message, int error) {
    // ECONNREFUSED comes from an ICMP message and does not affect the next reply.
    return message.truncated() || error == EAGAIN || error == ECONNREFUSED;
}

/// Counts and logs a failed receive call. Returns whether to read again.
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
        // References to removed endpoints are released, since they keep ports from being reused.
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

/// Waits for the creator of the endpoint. A worker finds an unprepared endpoint if the creator is
/// about to finish, or if it has a descriptor number left over from an earlier socket. The creator
/// may wait for the port of an endpoint that this worker holds, so all endpoints are released
/// first.
// NOLINTNEXTLINE(performance-unnecessary-value-param): letGo releases all other references.
bool UpstreamReceiver::serveUnprepared(EndpointPtr endpoint) {
    letGo();
    { const MutexLock creatorIsDone(context_->endpointCreation); }
    // If it is still unprepared, it was removed.
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
    // The claim ends before the socket is armed, since another worker may then serve it at once.
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
        // Counted for information only. The HMAC decides whether the reply is accepted.
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

/// The flow that a reply belongs to. On a multiplexed socket replies of other flows may arrive too.
/// Null for a label without an endpoint.
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

/// Releases all that other threads may need while this worker waits.
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
