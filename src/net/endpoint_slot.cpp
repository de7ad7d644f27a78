#include "net/endpoint_slot.h"

#include <utility>

namespace vesk {

namespace {

/// The deleter of the leases, called when the last lease is released.
struct GiveBack {
    EndpointPtr endpoint;
    std::shared_ptr<WakeUp> returned;

    void operator()(VeskEndpointDescriptor* /*endpoint*/) {
        // Released before the post, so that the owner, once awake, holds the only reference.
        endpoint.reset();
        returned->post();
    }
};

}  // namespace

LentEndpoint::LentEndpoint(EndpointPtr owned) : owned_(std::move(owned)) {
    if (owned_) {
        returned_ = std::make_shared<WakeUp>();
        lease_ = EndpointPtr(owned_.get(), GiveBack{owned_, returned_});
    }
}

EndpointPtr LentEndpoint::takeBack() {
    if (owned_) {
        lease_.reset();
        returned_->wait();
    }
    return std::exchange(owned_, nullptr);
}

EndpointPtr EndpointSlot::load() const {
    const MutexLock lock(mutex_);
    return lease_;
}

void EndpointSlot::publish(const LentEndpoint& endpoint) {
    replace(endpoint.lease());
}

void EndpointSlot::withdraw() {
    replace(nullptr);
}

void EndpointSlot::replace(EndpointPtr lease) {
    // The parameter, with the old lease, is destroyed after the lock is released: it may be the
    // last lease.
    const MutexLock lock(mutex_);
    std::swap(lease_, lease);
    generation_.store(generation_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

}  // namespace vesk
