// An endpoint: its sockets, the record of its flow, its counters, and the route of its replies. Any
// thread.
//
// Members are grouped by the threads that may access them. An endpoint does not know the poll loop:
// the deleter that its creator passes in disposes of the sockets.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "base/counter.h"
#include "base/sequenced.h"
#include "base/socket_address.h"
#include "base/sync.h"
#include "datapath/wire/layout.h"
#include "flow/flow_desc.h"
#include "net/local_address.h"

namespace vesk {

/// Called once, with the read and the write socket, on the thread that releases the last reference.
using EndpointDeleter = std::function<void(int rdsockfd, int wrsockfd)>;

/// Where the replies of a flow are sent. The three members come from one datagram, and are read and
/// replaced together, so that no reply mixes the routes of two senders.
struct ReplyRoute {
    /// The sender of the last datagram that passed its check; before that, the address that the
    /// flow names.
    SocketAddress peer;
    /// The address of this host on which that datagram arrived.
    LocalAddress local;
    ReturnPath returnPath;

    friend bool operator==(const ReplyRoute&, const ReplyRoute&) = default;
};

/// In bytes. Data that different threads write for each datagram is at least this far apart.
inline constexpr std::size_t cacheLineSize = 64;

struct EndpointCounters {
    /// Datagrams sent in full.
    alignas(cacheLineSize) SharedCounter txDg;
    /// Datagrams that could not be sent.
    SharedCounter txDgDropped;
    /// Datagrams received. Written by one receiving thread at a time.
    alignas(cacheLineSize) Counter rxDg;
    /// Datagrams received but rejected or truncated.
    SharedCounter rxDgError;
    /// Datagrams sent, and not sent, in the return direction.
    SharedCounter dnTxDg;
    SharedCounter dnTxDgDropped;
};

/// Whether a datagram of a new endpoint has passed its check. `failed`: the datagram that the
/// endpoint was made for was forged, and no other had passed before; the endpoint is removed.
enum class Trial : std::uint8_t { pending, passed, failed };

class VeskEndpointDescriptor {
 public:
    /// `boundTo` is given for a listening endpoint and determines its family. The family of a
    /// flow's endpoint is that of the flow's upstream address.
    VeskEndpointDescriptor(std::uint32_t flowLabel, int readSocket, int writeSocket,
                           const FlowDesc& flowDesc, EndpointDeleter endpointDeleter,
                           const IPAddrInfo& boundTo = {});
    /// Calls the deleter. An empty deleter ends the process.
    ~VeskEndpointDescriptor();
    VeskEndpointDescriptor(const VeskEndpointDescriptor&) = delete;
    VeskEndpointDescriptor& operator=(const VeskEndpointDescriptor&) = delete;

    /// Records that the flow has traffic. Any thread. The flag is written only if it changes, so
    /// that its cache line is not moved between processors for each datagram.
    void markActive() {
        if (idle.load(std::memory_order_relaxed)) {
            idle.store(false, std::memory_order_relaxed);
        }
    }

    /// Leaves the sockets to the caller: the deleter is not called. Only the holder of the last
    /// reference may call this.
    void detachSockets();

    /// Whether the flow names an address to which its sockets are bound.
    bool isBound() const { return flow.up.srcAddrInfo.resolved(); }

    // Constant.

    /// 0 for the downstream and the lateral endpoint.
    const std::uint32_t label;
    const int rdsockfd;
    /// A duplicate of the read socket; the same descriptor for the downstream and lateral endpoint.
    const int wrsockfd;
    /// The address family of the sockets.
    const int family;
    /// The address that a listening endpoint is bound to; empty for a flow's endpoint.
    const IPAddrInfo localAddress;

    // Any thread; written rarely.

    /// Set by the clean-up pass, cleared by traffic.
    std::atomic<bool> idle{false};
    /// The longest datagrams that the kernel sends from the write socket several at a time, in
    /// bytes. Lowered where it refuses; 0 if it cannot do that at all.
    std::atomic<std::uint16_t> segmentLimit{maxDatagramSize};

    // Written by the thread that makes the endpoint, read by any.

    /// The port that the flow names and the read socket is bound to, in host byte order. 0 before
    /// the bind, and if the kernel chooses the port.
    std::atomic<std::uint16_t> boundPort{0};
    /// Whether the socket options are set, the address is bound, and the socket is registered with
    /// the poll loop. Until then only the creating thread uses the endpoint; it holds
    /// `endpointCreation`.
    std::atomic<bool> prepared{false};

    // Used by the workers that are woken for the read socket, several at once.

    /// The worker that serves the socket; null if there is none. A worker may have a descriptor
    /// number left over from a removed endpoint while another worker serves this one.
    std::atomic<const void*> server{nullptr};
    /// How often the read socket was armed again. Changed only by the worker that serves it. A
    /// worker may drain the socket twice before it arms it; from this number it sees that it has
    /// armed it.
    std::atomic<std::uint32_t> armings{0};

    // Any thread.

    EndpointCounters counters;

    // Guarded by the locks below, as each member says.

    /// The flow as declared. Constant except for its HMAC states: `towardsUpstream` guards those
    /// of `down.inHmac` and `up.outHmac`, `towardsDownstream` those of `up.inHmac` and
    /// `down.outHmac`. The locks are contended only if datagrams of one flow arrive both directly
    /// and over the lateral stream, or if replies of a multiplexed flow arrive on several sockets.
    FlowDesc flow;
    alignas(cacheLineSize) Mutex towardsUpstream;
    Trial trial VESK_GUARDED_BY(towardsUpstream) = Trial::pending;
    alignas(cacheLineSize) Mutex towardsDownstream;

    // Learned from traffic: read for each datagram, written rarely. Any thread.

    /// Written by a thread that holds `towardsUpstream`.
    alignas(cacheLineSize) Sequenced<ReplyRoute> route;
    /// The source address of datagrams sent upstream: first as configured, then the address on
    /// which replies arrive.
    Sequenced<LocalAddress> upstreamLocal;

 private:
    EndpointDeleter deleter_;
};

/// Made from a std::unique_ptr, so that the reference count, which changes for each datagram, does
/// not share a cache line with members that are only read.
using EndpointPtr = std::shared_ptr<VeskEndpointDescriptor>;

}  // namespace vesk
