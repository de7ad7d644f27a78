// What the instances of a group know of each other: the lateral stream's settings, keys and peers.
// Commands write on the main thread; the downstream and lateral receive threads read.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <unordered_map>

#include "base/socket_address.h"
#include "base/sync.h"
#include "base/thread_control.h"
#include "flow/hmac_info.h"
#include "flow/ip_addr_info.h"
#include "net/endpoint_slot.h"

namespace vesk {

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

/// The lateral stream's settings.
struct LateralStream {
    /// Whether the lateral thread was started. Set once, by "start_lateral" and with release order,
    /// and read with acquire order: a thread that reads it as true also sees the settings below.
    std::atomic<bool> running{false};

    // Written by "start_lateral" before it sets `running`, and read only where that is set.

    /// Peers listen on the same port; only their addresses differ.
    std::uint64_t port = 0;
    std::uint32_t index = 0;
    /// The number of instances that share the label space; 0: every label is this instance's.
    std::uint32_t maxQels = 0;

    LateralPeers peers;

    /// The same key twice: each use has a context of its own.
    Mutex signingLock;
    HmacInfo signingKey VESK_GUARDED_BY(signingLock);
    /// Used by the lateral receive thread alone, and before it starts by "start_lateral".
    HmacInfo checkingKey;

    /// The listening endpoint and its thread. Used by the main thread only.
    LentEndpoint endpoint;
    CancellableThread thread;
};

}  // namespace vesk
