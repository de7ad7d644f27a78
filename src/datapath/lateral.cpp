#include "datapath/lateral.h"

#include <sys/socket.h>

#include <cstddef>
#include <span>

#include "context/forwarder_context.h"
#include "datapath/downstream.h"
#include "datapath/receive_thread.h"
#include "datapath/send_batch.h"
#include "datapath/wire/lateral_header.h"

namespace vesk {

namespace {

/// The state of the lateral receive thread.
class LateralReceiver {
 public:
    explicit LateralReceiver(ForwarderContext& context);

    void receive(const ReceivedDatagram& datagram);
    void endBatch();

 private:
    void forwardedReceived(const ReceivedDatagram& datagram, const LateralHeader& header);
    void returnedReceived(const ReceivedDatagram& datagram, const LateralHeader& header);
    void holdForPeer(std::span<std::uint8_t> datagram, const SocketAddress& peer,
                     VeskEndpointDescriptor& lateral);
    void sendToPeers();

    ForwarderContext& context_;
    DownstreamReceiver requests_;
    /// Replies without their lateral header, on their way to the peers.
    SendBatch replies_;
};

LateralReceiver::LateralReceiver(ForwarderContext& context)
    : context_(context),
      requests_(context),
      replies_(
          MSG_DONTWAIT, false,
          [](VeskEndpointDescriptor& lateral, const SendResult& result, std::size_t datagrams) {
              countSend(result.outcome, lateral.counters.dnTxDg, lateral.counters.dnTxDgDropped,
                        datagrams);
          }) {}

void LateralReceiver::receive(const ReceivedDatagram& datagram) {
    const auto header = parseLateralHeader(datagram.buffer, datagram.length);
    if (header && header->type == lateralForward) {
        forwardedReceived(datagram, *header);
    } else if (header && header->type == lateralReturn) {
        returnedReceived(datagram, *header);
    } else {
        datagram.endpoint.counters.rxDgError.increment();
    }
}

/// Handles a datagram that another instance forwarded because this one owns its label.
void LateralReceiver::forwardedReceived(const ReceivedDatagram& datagram,
                                        const LateralHeader& header) {
    const ReturnPath returnPath = keepReturnPath(datagram.buffer, header);
    const std::size_t framedLength = stripLateralHeader(datagram.buffer, datagram.length, header);
    downstreamPacketReceived({datagram.endpoint, datagram.buffer, framedLength, datagram.sender,
                              datagram.localDestination, returnPath},
                             requests_);
}

/// Handles a reply that the owner of a label returned to a datagram that this instance forwarded.
void LateralReceiver::returnedReceived(const ReceivedDatagram& datagram,
                                       const LateralHeader& header) {
    if (!checkLateralHmac(datagram.buffer, header, context_.lateral.checkingKey)) {
        datagram.endpoint.counters.rxDgError.increment();
        return;
    }
    const SocketAddress peer = lateralAddress(datagram.buffer, header);
    const std::size_t framedLength = stripLateralHeader(datagram.buffer, datagram.length, header);
    holdForPeer(datagram.buffer.first(framedLength), peer, datagram.endpoint);
}

/// Holds a reply for the peer. The result is counted on the lateral endpoint.
void LateralReceiver::holdForPeer(std::span<std::uint8_t> datagram, const SocketAddress& peer,
                                  VeskEndpointDescriptor& lateral) {
    if (peer.length == 0) {
        lateral.counters.dnTxDgDropped.increment();
        return;
    }
    if (replies_.full()) {
        sendToPeers();
    }
    replies_.nextRoute().setDestination(peer);
    replies_.add(datagram, lateral);
}

void LateralReceiver::sendToPeers() {
    if (replies_.empty()) {
        return;
    }
    const EndpointPtr downstream = context_.downstreamEndpoint.load();
    if (downstream) {
        replies_.sendFrom(*downstream);
    } else {
        replies_.settleAll({SendOutcome::noRoom, 0});
    }
}

void LateralReceiver::endBatch() {
    requests_.endBatch();
    sendToPeers();
}

}  // namespace

void lateralStreamRecv(const std::shared_ptr<ForwarderContext>& context,
                       const EndpointPtr& endpoint) {
    LateralReceiver receiver(*context);
    serveListener(*endpoint,
                  {"lateral stream",
                   [&receiver](const ReceivedDatagram& datagram) { receiver.receive(datagram); },
                   [&receiver] { receiver.endBatch(); }});
}

}  // namespace vesk
