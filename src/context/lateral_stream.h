// The settings, keys and peers of the lateral stream between the instances of a group. Written by
// commands on the main thread; read by the receive threads and the workers.
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

/// The instances that share the label space, by index. Takes its own lock.
class LateralPeers {
 public:
    /// Adds the peer or replaces its address.
    void set(std::uint32_t index, const IPAddrInfo& address) VESK_EXCLUDES(lock_);
    /// The peer's address with this port (in host byte order); none for an unknown index.
    std::optional<SocketAddress> find(std::uint32_t index, std::uint16_t port) const
        VESK_EXCLUDES(lock_);
    bool empty() const VESK_EXCLUDES(lock_);

 private:
    mutable RwLock lock_;
    std::unordered_map<std::uint32_t, IPAddrInfo> peers_ VESK_GUARDED_BY(lock_);
};

/// The lateral stream's settings.
struct LateralStream {
    /// Whether the lateral thread was started. Set once, by "start_lateral", with release order,
    /// and read with acquire order: a thread that reads true also sees the settings below.
    std::atomic<bool> running{false};

    // Written by "start_lateral" before it sets `running`; read only if `running` is set.

    /// The port in host byte order, on which all peers listen.
    std::uint64_t port = 0;
    /// The index of this instance.
    std::uint32_t index = 0;
    /// The number of instances that share the label space. 0: this instance owns all labels.
    std::uint32_t maxQels = 0;

    LateralPeers peers;

    /// The same key twice, since only one thread at a time may use each.
    Mutex signingLock;
    HmacInfo signingKey VESK_GUARDED_BY(signingLock);
    /// Used only by the lateral receive thread, and by "start_lateral" before that thread starts.
    HmacInfo checkingKey;

    /// The listening endpoint and its thread. Used by the main thread only.
    LentEndpoint endpoint;
    CancellableThread thread;
};

}  // namespace vesk
