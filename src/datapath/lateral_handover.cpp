#include "datapath/lateral_handover.h"

#include <span>

#include "context/forwarder_context.h"
#include "datapath/datagram_io.h"
#include "datapath/send_outcome.h"
#include "datapath/wire/lateral_header.h"

namespace vesk {

namespace {

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
    const SendResult result = sendMessage(message, lateralEndpoint.wrsockfd, 0, length);
    countSend(result.outcome, lateralEndpoint.counters.txDg, lateralEndpoint.counters.txDgDropped);
}

}  // namespace

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

bool handOverToOwner(const ReceivedDatagram& datagram, std::uint32_t owner,
                     ForwarderContext& context) {
    const auto port = static_cast<std::uint16_t>(context.lateral.port);
    const auto ownerAddress = context.lateral.peers.find(owner, port);
    const EndpointPtr lateralEndpoint = context.lateralEndpoint.load();
    // A datagram is forwarded between instances at most once. Otherwise instances whose settings
    // disagree about the owner would send it back and forth.
    if (!datagram.returnPath.empty() || !ownerAddress || !lateralEndpoint) {
        return false;
    }
    const std::optional<std::size_t> length = wrapForOwner(datagram, context.lateral);
    if (!length) {
        lateralEndpoint->counters.txDgDropped.increment();
        return true;
    }
    sendToOwner(datagram, *length, *ownerAddress, *lateralEndpoint);
    return true;
}

}  // namespace vesk
