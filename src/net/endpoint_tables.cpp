#include "net/endpoint_tables.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace vesk {

namespace {

/// The position as an offset of a vector's iterators.
std::ptrdiff_t offset(std::size_t position) {
    return static_cast<std::ptrdiff_t>(position);
}

}  // namespace

bool DescriptorTable::insert(int fd, const EndpointPtr& endpoint) {
    if (fd < 0) {
        return false;
    }
    const auto index = static_cast<std::size_t>(fd);
    if (index >= byFd_.size()) {
        byFd_.resize(index + 1);
    }
    if (byFd_[index]) {
        return false;
    }
    byFd_[index] = endpoint;
    return true;
}

void DescriptorTable::erase(int fd) {
    const auto index = static_cast<std::size_t>(fd);
    if (fd >= 0 && index < byFd_.size()) {
        byFd_[index].reset();
    }
}

EndpointPtr DescriptorTable::find(int fd) const {
    const auto index = static_cast<std::size_t>(fd);
    return fd >= 0 && index < byFd_.size() ? byFd_[index] : nullptr;
}

bool LabelTable::insert(const EndpointPtr& endpoint) {
    if (contains(endpoint->label)) {
        return false;
    }
    const std::ptrdiff_t at = offset(position(endpoint->label));
    rows_.insert(rows_.begin() + at, endpoint);
    labels_.insert(labels_.begin() + at, endpoint->label);
    return true;
}

EndpointPtr LabelTable::take(std::uint32_t label) {
    if (!contains(label)) {
        return nullptr;
    }
    const std::size_t at = position(label);
    EndpointPtr taken = std::move(rows_[at]);
    rows_.erase(rows_.begin() + offset(at));
    labels_.erase(labels_.begin() + offset(at));
    return taken;
}

LabelTable::Rows LabelTable::takeIf(
    const std::function<bool(VeskEndpointDescriptor& endpoint)>& chosen) {
    Rows taken;
    std::size_t kept = 0;
    for (std::size_t i = 0; i < rows_.size(); ++i) {
        if (chosen(*rows_[i])) {
            taken.push_back(std::move(rows_[i]));
        } else {
            std::swap(rows_[kept], rows_[i]);
            labels_[kept] = labels_[i];
            ++kept;
        }
    }
    rows_.resize(kept);
    labels_.resize(kept);
    return taken;
}

EndpointPtr LabelTable::find(std::uint32_t label) const {
    const std::size_t at = position(label);
    return at < labels_.size() && labels_[at] == label ? rows_[at] : nullptr;
}

bool LabelTable::contains(std::uint32_t label) const {
    const std::size_t at = position(label);
    return at < labels_.size() && labels_[at] == label;
}

std::size_t LabelTable::position(std::uint32_t label) const {
    return static_cast<std::size_t>(
        std::distance(labels_.begin(), std::ranges::lower_bound(labels_, label)));
}

}  // namespace vesk
