// How the threads of the datapath get the listening endpoints. The main thread owns an endpoint and
// lends it, commands put it into a slot, and a thread that sends takes a lease from the slot.
//
// The last release of a listening endpoint closes its socket, and "stop" has to know when that has
// happened. Therefore no other thread holds the owner's reference. A lease is a separate reference;
// the release of the last lease wakes the owner.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "base/sync.h"
#include "net/endpoint.h"

namespace vesk {

/// An endpoint with its owner's reference. Used by the thread that owns it, usually main.
class LentEndpoint {
 public:
    /// Without an endpoint.
    LentEndpoint() = default;
    /// `owned` may be empty.
    explicit LentEndpoint(EndpointPtr owned);
    LentEndpoint(LentEndpoint&&) = default;
    LentEndpoint& operator=(LentEndpoint&&) = default;
    LentEndpoint(const LentEndpoint&) = delete;
    LentEndpoint& operator=(const LentEndpoint&) = delete;
    ~LentEndpoint() = default;

    explicit operator bool() const { return owned_ != nullptr; }

    /// A lease; empty if there is no endpoint. It keeps the endpoint alive, also after this object
    /// is destroyed. Copies of a lease are leases too.
    const EndpointPtr& lease() const { return lease_; }

    /// Waits until all leases are released, and returns the owner's reference; empty if there is no
    /// endpoint. No slot may lend the endpoint at that time, or the wait does not end.
    EndpointPtr takeBack();

 private:
    EndpointPtr owned_;
    /// Posted once, by the thread that releases the last lease. Shared with the leases, since the
    /// owner may be destroyed first.
    std::shared_ptr<WakeUp> returned_;
    /// All other leases are copies of this one.
    EndpointPtr lease_;
};

/// The endpoint that is lent at present. Replaced by commands on the main thread while other
/// threads read it.
class EndpointSlot {
 public:
    /// A lease of the endpoint lent at present; empty if there is none. Hold it while you use the
    /// endpoint, for one pass over ready sockets at most, and never while you wait for descriptors
    /// or write to the log: "stop" waits for all leases.
    EndpointPtr load() const VESK_EXCLUDES(mutex_);

    /// Changes with each replacement; 0 before the first. A thread that keeps a lease reads this
    /// number first, and calls `load` again if the number differs from the one read before its last
    /// `load`. It then never keeps a lease of an endpoint that was replaced before it read the
    /// number.
    std::uint64_t generation() const { return generation_.load(std::memory_order_acquire); }

    /// Lends this endpoint from now on.
    void publish(const LentEndpoint& endpoint) VESK_EXCLUDES(mutex_);
    /// Lends nothing from now on. Existing leases stay valid.
    void withdraw() VESK_EXCLUDES(mutex_);

 private:
    void replace(EndpointPtr lease) VESK_EXCLUDES(mutex_);

    mutable Mutex mutex_;
    EndpointPtr lease_ VESK_GUARDED_BY(mutex_);
    /// Written under the mutex, read without it.
    std::atomic<std::uint64_t> generation_{0};
};

}  // namespace vesk
