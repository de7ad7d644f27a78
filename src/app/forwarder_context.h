// What every thread shares: one context for the life of the process, made at start-up for one
// framing version and held by shared reference by the main thread and by every thread it starts.
//
// A record of names with little code of its own. Only source files include it, never a header.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "base/sync.h"
#include "base/thread_control.h"
#include "base/unique_fd.h"
#include "flow/hmac_info.h"
#include "flow/ip_addr_info.h"
#include "net/endpoint.h"
#include "poll/poll_param.h"

namespace vesk {

class EndpointManager;
class PeriodicTask;
struct FramingDescriptor;

/// A downstream receive thread with the endpoint it serves.
struct DownstreamListener {
    /// Held here as well as by the thread, so that it is the main thread that releases it last.
    EndpointPtr endpoint;
    CancellableThread thread;
};

/// The instances that share the label space, by index.
class LateralPeers {
 public:
    /// Adds the peer or replaces its address.
    void set(std::uint32_t index, const IPAddrInfo& address) VESK_EXCLUDES(lock_);
    /// The peer's address with this port; none for an unknown index.
    std::optional<SocketAddress> find(std::uint32_t index, std::uint16_t port) const
        VESK_EXCLUDES(lock_);
    bool empty() const VESK_EXCLUDES(lock_);

 private:
    mutable RwLock lock_;
    std::unordered_map<std::uint32_t, IPAddrInfo> peers_ VESK_GUARDED_BY(lock_);
};

/// The lateral stream's settings. Written by "start_lateral" before `running` is set, read by the
/// receive threads after they saw it set.
struct LateralStream {
    std::atomic<bool> running{false};
    /// Peers listen on the same port; only their addresses differ.
    std::atomic<std::uint64_t> port{0};
    std::atomic<std::uint32_t> index{0};
    /// The number of instances that share the label space; 0: every label is this instance's.
    std::atomic<std::uint32_t> maxQels{0};
    LateralPeers peers;

    /// The same key twice: each use has a context of its own.
    Mutex signingLock;
    HmacInfo signingKey VESK_GUARDED_BY(signingLock);
    /// Used by the lateral receive thread alone, and before it starts by "start_lateral".
    HmacInfo checkingKey;

    CancellableThread thread;
};

struct ForwarderContext : std::enable_shared_from_this<ForwarderContext> {
    explicit ForwarderContext(int framingVersion);
    ~ForwarderContext();
    ForwarderContext(const ForwarderContext&) = delete;
    ForwarderContext& operator=(const ForwarderContext&) = delete;

    // Constant from start-up to shut-down.

    const FramingDescriptor& framing;
    const std::shared_ptr<EndpointManager> endpointManager;
    /// The senders' end of the message channel, and the poll loop's.
    UniqueFd pollSocket;
    UniqueFd serverPollSock;
    std::shared_ptr<PollThreadParam> pollThread;
    PollParams receiveWorkers;
    /// Reported as send workers; nobody starts any.
    PollParams sendWorkers;
    std::shared_ptr<PeriodicTask> cleanUpTask;

    // Replaced by commands while other threads read them.

    EndpointSlot downstreamEndpoint;
    EndpointSlot lateralEndpoint;
    LateralStream lateral;

    // The main thread's own. More than one listener only where "start" was sent twice without
    // "stop": each goes on with the endpoint it began with.

    std::list<DownstreamListener> downstreamListeners;

    /// Held from looking for a label's endpoint to its being ready for use, so that of two threads
    /// that miss the same one, one makes it and the other uses it ready made.
    Mutex endpointCreation;
};

}  // namespace vesk
