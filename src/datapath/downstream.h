// Forwards datagrams upstream: a peer's datagram is checked, relabelled, signed and sent from the
// flow's own socket, or handed to the instance that owns its label. Runs on the downstream and the
// lateral receive thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "datapath/received_datagram.h"
#include "datapath/send_batch.h"
#include "datapath/wire/framing.h"
#include "log/log.h"
#include "net/endpoint.h"
#include "net/endpoint_cache.h"

namespace vesk {

struct ForwarderContext;

/// What happens to a datagram whose flow is known. `forgedFirst`: the endpoint was made for this
/// forged datagram, and no other has passed its check; the endpoint is removed. `flowGivenUp`: the
/// endpoint found is being removed for that reason.
enum class RequestVerdict : std::uint8_t { forward, forged, forgedFirst, unsignable, flowGivenUp };

/// The state of one receive thread. Used only by that thread. Datagrams of one flow that follow
/// each other are held until a datagram of another flow comes or the batch ends, and then leave
/// together.
class DownstreamReceiver {
 public:
    explicit DownstreamReceiver(ForwarderContext& context);

    /// Forwards the datagram, whose buffer must stay valid until the batch ends. Each result is
    /// counted or logged.
    void receive(const ReceivedDatagram& datagram);

    /// Sends what is held, and releases all endpoints. To be called after each batch.
    void endBatch();

 private:
    /// A flow's endpoint, valid until the batch ends.
    struct Flow {
        VeskEndpointDescriptor* endpoint = nullptr;
        /// Whether it was made for this datagram.
        bool created = false;
    };

    std::optional<ParsedDatagram> parse(const ReceivedDatagram& datagram);
    bool passToFlow(const ReceivedDatagram& datagram, const ParsedDatagram& parsed);
    RequestVerdict holdForUpstream(const ReceivedDatagram& datagram, std::size_t headerLength,
                                   const Flow& found);
    Flow findFlow(std::uint32_t label);
    Flow createFlow(std::uint32_t label);
    void releaseBefore(const LogDelay& lines);
    void makeRoomFor(VeskEndpointDescriptor& flow);
    void sendHeld();
    void settle(VeskEndpointDescriptor& flow, const SendResult& result, std::size_t datagrams);

    ForwarderContext& context_;
    LabelCache flows_;
    RemovalWatch removals_;
    /// The datagrams held, all of one flow, and that flow.
    SendBatch held_;
    VeskEndpointDescriptor* heldFlow_ = nullptr;
};

/// The body of the downstream receive thread: serves the endpoint until the thread is cancelled.
void downstreamEptRecv(const std::shared_ptr<ForwarderContext>& context,
                       const EndpointPtr& endpoint);

/// Forwards one datagram. Called on the downstream receive thread, and on the lateral one for
/// datagrams that another instance forwarded.
void downstreamPacketReceived(const ReceivedDatagram& datagram, DownstreamReceiver& receiver);

}  // namespace vesk
