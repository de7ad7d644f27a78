// How the threads of the datapath come by the listening endpoints: the main thread owns an endpoint
// and lends it, commands put it into a slot, and whoever sends takes a lease from there.
//
// The last release of a listening endpoint closes its socket, and "stop" has to know when that
// happened. So no other thread ever holds the owner's reference: a lease is a reference of its own
// kind, and giving back the last one wakes the owner.
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
    /// No endpoint.
    LentEndpoint() = default;
    /// `owned` may be empty.
    explicit LentEndpoint(EndpointPtr owned);
    LentEndpoint(LentEndpoint&&) = default;
    LentEndpoint& operator=(LentEndpoint&&) = default;
    LentEndpoint(const LentEndpoint&) = delete;
    LentEndpoint& operator=(const LentEndpoint&) = delete;
    ~LentEndpoint() = default;

    explicit operator bool() const { return owned_ != nullptr; }

    /// A lease, empty where there is no endpoint. It keeps the endpoint alive by itself, also after
    /// this object is gone. Its copies are leases too.
    const EndpointPtr& lease() const { return lease_; }

    /// Waits until every lease is given back, and returns the owner's reference. No slot may lend
    /// the endpoint any longer, or the wait does not end. Empty where there is no endpoint.
    EndpointPtr takeBack();

 private:
    EndpointPtr owned_;
    /// Posted once, by whoever gives back the last lease; shared with the leases, since the owner
    /// may go first.
    std::shared_ptr<WakeUp> returned_;
    /// The lease that all others are copies of.
    EndpointPtr lease_;
};

/// The endpoint that is lent at present. Commands replace it while other threads read it.
class EndpointSlot {
 public:
    /// A lease of what is lent at present; empty where nothing is. Hold it while you use the
    /// endpoint, at most for one pass over ready sockets: never while you wait for descriptors or
    /// write to the log, since "stop" waits for every lease.
    EndpointPtr load() const VESK_EXCLUDES(mutex_);

    /// Changes with every replacement. A thread that keeps a lease reads this first, then calls
    /// `load` where it is not the value that it read before its last `load`: it never keeps a lease
    /// of an endpoint that was replaced before it read the number. 0 while nothing was ever lent.
    std::uint64_t generation() const { return generation_.load(std::memory_order_acquire); }

    /// Lends this endpoint from now on.
    void publish(const LentEndpoint& endpoint) VESK_EXCLUDES(mutex_);
    /// Lends nothing from now on. Leases that are out stay valid.
    void withdraw() VESK_EXCLUDES(mutex_);

 private:
    void replace(EndpointPtr lease) VESK_EXCLUDES(mutex_);

    mutable Mutex mutex_;
    EndpointPtr lease_ VESK_GUARDED_BY(mutex_);
    /// Written under the mutex, read without it.
    std::atomic<std::uint64_t> generation_{0};
};

}  // namespace vesk
