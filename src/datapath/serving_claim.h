// The right to use an upstream endpoint's receive buffer. Taken by the receive workers.
//
// A worker may come by a descriptor number that it kept from an endpoint now gone; whoever serves
// the number's new owner must not be disturbed, and no wake-up may be lost.
#pragma once

#include <atomic>
#include <utility>

#include "net/endpoint.h"

namespace vesk {

class ServingClaim {
 public:
    explicit ServingClaim(VeskEndpointDescriptor& endpoint)
        : endpoint_(endpoint), held_(claimOrAskForMore(endpoint.serving)) {}
    ~ServingClaim() { giveBack(); }
    ServingClaim(const ServingClaim&) = delete;
    ServingClaim& operator=(const ServingClaim&) = delete;

    bool held() const { return held_; }

    /// Ends the claim. True where another worker came meanwhile: its wake-up is not to be lost, so
    /// the socket has to be read once more.
    bool giveBack() {
        return std::exchange(held_, false) &&
               endpoint_.serving.exchange(Serving::nobody, std::memory_order_acq_rel) ==
                   Serving::moreWanted;
    }

 private:
    /// Whether the claim is ours; where it is another's, that one is told to go on.
    static bool claimOrAskForMore(std::atomic<Serving>& serving) {
        Serving state = Serving::nobody;
        while (!serving.compare_exchange_weak(
            state, state == Serving::nobody ? Serving::claimed : Serving::moreWanted,
            std::memory_order_acq_rel, std::memory_order_acquire)) {
        }
        return state == Serving::nobody;
    }

    VeskEndpointDescriptor& endpoint_;
    bool held_;
};

}  // namespace vesk
