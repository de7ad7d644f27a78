// The exclusive right to use an upstream endpoint's receive buffer. Taken by the receive workers.
//
// A worker may still have the descriptor number of a removed endpoint when the number belongs to a
// new one. It must not disturb the worker that serves the new endpoint, and no wake-up may be lost.
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

    /// Ends the claim. True if another worker tried to claim meanwhile: the socket must then be
    /// read once more, so that no wake-up is lost.
    bool giveBack() {
        return std::exchange(held_, false) &&
               endpoint_.serving.exchange(Serving::nobody, std::memory_order_acq_rel) ==
                   Serving::moreWanted;
    }

 private:
    /// True if the claim was free. Otherwise records that its holder has to read once more.
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
