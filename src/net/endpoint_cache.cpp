#include "net/endpoint_cache.h"

#include <utility>

#include "net/endpoint_manager.h"

namespace vesk {

EndpointCache::EndpointCache(const EndpointManager& manager)
    : manager_(manager), removals_(manager.removals()) {}

bool EndpointCache::noticeRemovals() {
    const std::uint64_t removals = manager_.removals();
    if (removals == removals_) {
        return false;
    }
    removals_ = removals;
    letGo();
    return true;
}

const EndpointPtr& EndpointCache::findByFd(int fd) {
    if (fd < 0) {
        return none_;
    }
    const auto index = static_cast<std::size_t>(fd);
    if (index >= byFd_.size()) {
        byFd_.resize(index + 1);
    }
    Place& place = byFd_[index];
    if (place.endpoint) {
        return place.endpoint;
    }
    EndpointPtr found = manager_.findEndpointByFd(fd);
    if (!found || isStale(place, found)) {
        place.former.reset();
        place.hasFormer = false;
        return none_;
    }
    place.endpoint = std::move(found);
    place.position = fds_.size();
    fds_.push_back(fd);
    return place.endpoint;
}

bool EndpointCache::isStale(const Place& place, const EndpointPtr& found) {
    return place.hasFormer &&
           (place.former.owner_before(found) || found.owner_before(place.former));
}

void EndpointCache::letGoOfFd(int fd) {
    Place& place = byFd_.at(static_cast<std::size_t>(fd));
    place.former.reset();
    place.hasFormer = false;
    if (!place.endpoint) {
        return;
    }
    place.endpoint.reset();
    const int last = fds_.back();
    fds_[place.position] = last;
    byFd_[static_cast<std::size_t>(last)].position = place.position;
    fds_.pop_back();
}

const EndpointPtr& EndpointCache::findByLabel(std::uint32_t label) {
    EndpointPtr& place = byLabel_.at(label % byLabel_.size());
    if (!place || place->label != label) {
        place = manager_.findEndpointByLabel(label);
        labelsKept_ = true;
    }
    return place;
}

void EndpointCache::letGoOfLabels() {
    if (labelsKept_) {
        byLabel_.fill(nullptr);
        labelsKept_ = false;
    }
}

void EndpointCache::letGo() {
    for (const int fd : fds_) {
        Place& place = byFd_[static_cast<std::size_t>(fd)];
        place.former = place.endpoint;
        place.hasFormer = true;
        place.endpoint.reset();
    }
    fds_.clear();
    letGoOfLabels();
}

const EndpointPtr& CachedSlot::get() {
    const std::uint64_t generation = slot_.generation();
    if (!endpoint_ || generation != generation_) {
        generation_ = generation;
        endpoint_ = slot_.load();
    }
    return endpoint_;
}

}  // namespace vesk
