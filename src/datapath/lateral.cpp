#include "datapath/lateral.h"

#include <sys/socket.h>

#include <span>

#include "context/forwarder_context.h"
#include "datapath/datagram_io.h"
#include "datapath/downstream.h"
#include "datapath/send_outcome.h"
#include "datapath/wire/framing.h"
#include "datapath/wire/lateral_header.h"

namespace vesk {

namespace {

/// Handles a datagram that another instance forwarded because this one owns its label.
void forwardedReceived(VeskEndpointDescriptor& lateral, std::size_t length,
                       const LateralHeader& header, IncomingMessage& message,
                       ForwarderContext& context) {
    const DatagramBuffer buffer(lateral.receiveBuffer);
    const ReturnPath returnPath = keepReturnPath(buffer, header);
    const std::size_t framedLength = stripLateralHeader(buffer, length, header);
    downstreamPacketReceived({lateral, framedLength, message.sender(),
                              message.localDestination(lateral.family), returnPath},
                             context);
}

/// Sends a reply without its lateral header to the peer, and counts the result.
void sendToPeer(std::span<std::uint8_t> datagram, const SocketAddress& peer,
                EndpointCounters& counters, ForwarderContext& context) {
    const EndpointPtr downstream = context.downstreamEndpoint.load();
    if (!downstream || peer.length == 0) {
        counters.dnTxDgDropped.increment();
        return;
    }
    OutgoingMessage message;
    message.setDatagram(datagram);
    message.setDestination(peer);
    const SendResult result = sendMessage(message, downstream->wrsockfd, MSG_DONTWAIT, 1);
    countSend(result.outcome, counters.dnTxDg, counters.dnTxDgDropped);
}

/// Handles a reply that the owner of a label returned to a datagram that this instance forwarded.
void returnedReceived(VeskEndpointDescriptor& lateral, std::size_t length,
                      const LateralHeader& header, ForwarderContext& context) {
    const DatagramBuffer buffer(lateral.receiveBuffer);
    if (!checkLateralHmac(buffer, header, context.lateral.checkingKey)) {
        lateral.counters.rxDgError.increment();
        return;
    }
    const SocketAddress peer = lateralAddress(buffer, header);
    const std::size_t framedLength = stripLateralHeader(buffer, length, header);
    sendToPeer(buffer.first(framedLength), peer, lateral.counters, context);
}

void lateralReceived(VeskEndpointDescriptor& lateral, std::size_t length, IncomingMessage& message,
                     ForwarderContext& context) {
    const auto header = parseLateralHeader(ConstDatagramBuffer(lateral.receiveBuffer), length);
    if (header && header->type == lateralForward) {
        forwardedReceived(lateral, length, *header, message, context);
    } else if (header && header->type == lateralReturn) {
        returnedReceived(lateral, length, *header, context);
    } else {
        lateral.counters.rxDgError.increment();
    }
}

}  // namespace

void lateralStreamRecv(const std::shared_ptr<ForwarderContext>& context,
                       const EndpointPtr& endpoint) {
    IncomingMessage message;
    while (true) {
        const std::size_t length = awaitDatagram(message, *endpoint, "lateral stream");
        if (length != 0) {
            lateralReceived(*endpoint, length, message, *context);
        }
    }
}

}  // namespace vesk
