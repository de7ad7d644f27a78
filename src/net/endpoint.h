// One endpoint: its sockets, its flow, its counters and what it remembers of its peer.
//
// Members are grouped by who may touch them. Knows nothing of the poll loop: what becomes of the
// sockets in the end is the deleter's business, which comes from outside.
#pragma once

#include <sys/uio.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "base/counter.h"
#include "base/socket_address.h"
#include "base/sync.h"
#include "datapath/wire/layout.h"
#include "flow/flow_desc.h"
#include "net/local_address.h"

namespace vesk {

/// Called once with the read and the write socket when the last holder lets go.
using EndpointDeleter = std::function<void(int rdsockfd, int wrsockfd)>;

/// Where replies of a flow go. The three belong to one datagram: they are read and replaced
/// together, so that no reply goes to half of one sender and half of another.
struct ReplyRoute {
    /// The last sender.
    SocketAddress peer;
    /// The address on which its datagram arrived.
    LocalAddress local;
    ReturnPath returnPath;
};

/// What different threads write for every datagram is kept this far apart.
inline constexpr std::size_t cacheLineSize = 64;

/// Room for one datagram, in cache lines of its own.
struct alignas(cacheLineSize) ReceiveBuffer : std::array<std::uint8_t, maxDatagramSize> {};
static_assert(alignof(ReceiveBuffer) == cacheLineSize && sizeof(ReceiveBuffer) == maxDatagramSize,
              "nothing that another thread writes shares a cache line with a datagram");

struct EndpointCounters {
    /// Datagrams sent in full.
    alignas(cacheLineSize) SharedCounter txDg;
    /// Datagrams that could not be sent.
    SharedCounter txDgDropped;
    /// Datagrams received. One receiving thread at a time.
    alignas(cacheLineSize) Counter rxDg;
    /// Datagrams received but rejected or truncated.
    SharedCounter rxDgError;
    /// As for sent datagrams, of the return direction.
    SharedCounter dnTxDg;
    SharedCounter dnTxDgDropped;
};

/// Whether a worker is serving an endpoint's read socket, and whether another one was woken for the
/// same socket meanwhile and left it to the first.
enum class Serving : std::uint8_t { nobody, claimed, moreWanted };

/// Whether the datagrams that an endpoint was made for were worth it. One that failed is given up:
/// the first was forged, before any other had passed.
enum class Trial : std::uint8_t { pending, passed, failed };

class VeskEndpointDescriptor {
 public:
    /// `boundTo` is given for a listening endpoint, whose family follows from it; that of a flow's
    /// follows from the flow.
    VeskEndpointDescriptor(std::uint32_t flowLabel, int readSocket, int writeSocket,
                           const FlowDesc& flowDesc, EndpointDeleter endpointDeleter,
                           const IPAddrInfo& boundTo = {});
    /// Runs the deleter; an empty one ends the process.
    ~VeskEndpointDescriptor();
    VeskEndpointDescriptor(const VeskEndpointDescriptor&) = delete;
    VeskEndpointDescriptor& operator=(const VeskEndpointDescriptor&) = delete;

    /// Notes that the flow saw traffic. Written only on a change, so that the flag's cache line is
    /// not passed to and fro for every datagram.
    void markActive() {
        if (idle.load(std::memory_order_relaxed)) {
            idle.store(false, std::memory_order_relaxed);
        }
    }

    /// Leaves the sockets to the caller: the deleter will not be run. Only for the one who holds
    /// the last reference.
    void detachSockets();

    /// Whether the flow has its sockets bound to an address of its own.
    bool isBound() const { return flow.up.srcAddrInfo.resolved(); }

    // Constant.

    /// 0 for the downstream and the lateral endpoint.
    const std::uint32_t label;
    const int rdsockfd;
    /// A duplicate of the read socket; the same descriptor for the downstream and lateral endpoint.
    const int wrsockfd;
    /// Of the sockets.
    const int family;
    /// Empty for a flow's endpoint.
    const IPAddrInfo localAddress;

    // Any thread; written rarely.

    /// Set by the clean-up pass, cleared by traffic.
    std::atomic<bool> idle{false};

    // Written by the thread that makes the endpoint, read by any.

    /// The port that the read socket was bound to as the flow says; 0 before, or where the kernel
    /// chose one.
    std::atomic<std::uint16_t> boundPort{0};
    /// Whether options, address and registration with the poll loop are done; until then only the
    /// thread that created the endpoint uses it, and that thread holds `endpointCreation`.
    std::atomic<bool> prepared{false};

    // The thread that receives on the read socket, one at a time.

    ReceiveBuffer receiveBuffer{};
    iovec scatter{receiveBuffer.data(), maxDatagramSize};

    // The workers that are woken for the read socket, several at once.

    /// Who is at it. A descriptor number that a worker kept from an endpoint that is gone may lead
    /// it here while another worker serves this one.
    std::atomic<Serving> serving{Serving::nobody};
    /// How often a worker asked for the read socket to be armed again. Two workers may find one
    /// socket drained; the one that comes second sees that it was armed since.
    std::atomic<std::uint32_t> armings{0};

    // Any thread.

    EndpointCounters counters;

    // What the locks below guard, as each member says.

    /// The flow as it was declared. Nothing changes it but the use of its HMAC contexts: those of
    /// `down.inHmac` and `up.outHmac` belong to whoever holds `towardsUpstream`, those of
    /// `up.inHmac` and `down.outHmac` to whoever holds `towardsDownstream`. Uncontended unless
    /// datagrams of one flow come both directly and over the lateral stream, or replies of a
    /// multiplexed flow on several sockets.
    FlowDesc flow;
    alignas(cacheLineSize) Mutex towardsUpstream;
    Trial trial VESK_GUARDED_BY(towardsUpstream) = Trial::pending;
    alignas(cacheLineSize) Mutex towardsDownstream;

    /// Guards the addresses that traffic teaches. Readers are many, writers rare.
    alignas(cacheLineSize) RwLock routeLock;
    ReplyRoute route VESK_GUARDED_BY(routeLock);
    /// The address that datagrams are sent upstream from: as configured, then as replies show it.
    LocalAddress upstreamLocal VESK_GUARDED_BY(routeLock);

 private:
    EndpointDeleter deleter_;
};

/// Made from a std::unique_ptr: the reference count, which changes for every datagram, then does
/// not share a cache line with what is only read.
using EndpointPtr = std::shared_ptr<VeskEndpointDescriptor>;

}  // namespace vesk
