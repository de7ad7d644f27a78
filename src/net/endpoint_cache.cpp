#include "net/endpoint_cache.h"

#include <utility>

#include "net/endpoint_manager.h"

namespace vesk {

RemovalWatch::RemovalWatch(const EndpointManager& manager)
    : manager_(manager), seen_(manager.removals()) {}

bool RemovalWatch::noticeRemovals() {
    return std::exchange(seen_, manager_.removals()) != seen_;
}

bool RemovalWatch::unchanged() const {
    return manager_.removals() == seen_;
}

const EndpointPtr& LabelCache::find(std::uint32_t label) {
    EndpointPtr& place = byLabel_.at(label % byLabel_.size());
    if (place && place->label == label) {
        return place;
    }
    return keep(label, manager_.findEndpointByLabel(label));
}

const EndpointPtr& LabelCache::keep(std::uint32_t label, EndpointPtr endpoint) {
    EndpointPtr& place = byLabel_.at(label % byLabel_.size());
    if (place) {
        displaced_.push_back(std::move(place));
    }
    place = std::move(endpoint);
    used_ = true;
    return place;
}

void LabelCache::letGo() {
    if (used_) {
        byLabel_.fill(nullptr);
        displaced_.clear();
        used_ = false;
    }
}

bool EndpointCache::isCurrent(const VeskEndpointDescriptor& endpoint) const {
    return removals_.unchanged() || manager_.findEndpointByLabel(endpoint.label).get() == &endpoint;
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

void EndpointCache::endFd(int fd) {
    Place& place = byFd_.at(static_cast<std::size_t>(fd));
    place.former.reset();
    place.hasFormer = false;
    if (!place.endpoint) {
        return;
    }
    ended_.push_back(std::exchange(place.endpoint, nullptr));
    const int last = fds_.back();
    fds_[place.position] = last;
    byFd_[static_cast<std::size_t>(last)].position = place.position;
    fds_.pop_back();
}

void EndpointCache::letGoOfEnded() {
    ended_.clear();
    labels_.letGo();
}

void EndpointCache::letGo() {
    for (const int fd : fds_) {
        Place& place = byFd_[static_cast<std::size_t>(fd)];
        place.former = place.endpoint;
        place.hasFormer = true;
        place.endpoint.reset();
    }
    fds_.clear();
    letGoOfEnded();
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
