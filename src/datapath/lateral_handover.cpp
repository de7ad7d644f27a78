#include "datapath/lateral_handover.h"

#include <algorithm>
#include <array>
#include <span>

#include "context/forwarder_context.h"
#include "datapath/outgoing_message.h"
#include "datapath/send_outcome.h"
#include "datapath/wire/lateral_header.h"

namespace vesk {

namespace {

/// Copies the datagram into a buffer of its own, since the header makes it longer, and adds the
/// header. Returns the new length; none if the header does not fit or libcrypto fails.
std::optional<std::size_t> wrapForOwner(const ReceivedDatagram& datagram, DatagramBuffer buffer,
                                        LateralStream& lateral) {
    std::ranges::copy(datagram.buffer.first(datagram.length), buffer.begin());
    const MutexLock lock(lateral.signingLock);
    return addLateralHeader(buffer, datagram.length, datagram.sender, lateral.signingKey);
}

void sendToOwner(std::span<std::uint8_t> datagram, const SocketAddress& ownerAddress,
                 VeskEndpointDescriptor& lateralEndpoint) {
    OutgoingMessage message;
    message.setDatagram(datagram);
    message.setDestination(ownerAddress);
    const SendResult result =
        sendMessage(*message.header(), lateralEndpoint.wrsockfd, 0, datagram.size());
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
    std::array<std::uint8_t, maxDatagramSize> buffer;
    const std::optional<std::size_t> length = wrapForOwner(datagram, buffer, context.lateral);
    if (!length) {
        lateralEndpoint->counters.txDgDropped.increment();
        return true;
    }
    sendToOwner(std::span(buffer).first(*length), *ownerAddress, *lateralEndpoint);
    return true;
}

}  // namespace vesk
