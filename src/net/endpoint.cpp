#include "net/endpoint.h"

#include <algorithm>
#include <utility>

namespace vesk {

ReturnPath::ReturnPath(std::span<const std::uint8_t> bytes)
    : size_(static_cast<std::uint8_t>(bytes.size())) {
    std::copy(bytes.begin(), bytes.end(), bytes_.begin());
}

bool operator==(const ReturnPath& left, const ReturnPath& right) {
    return std::ranges::equal(left.bytes(), right.bytes());
}

VeskEndpointDescriptor::VeskEndpointDescriptor(std::uint32_t flowLabel, int readSocket,
                                               int writeSocket, const FlowDesc& flowDesc,
                                               EndpointDeleter endpointDeleter)
    : label(flowLabel),
      rdsockfd(readSocket),
      wrsockfd(writeSocket),
      family(flowDesc.up.addrInfo.family()),
      flow(flowDesc),
      route{flowDesc.down.addrInfo.socketAddress(), flowDesc.down.srcAddrInfo.socketAddress(), {}},
      upstreamLocal(flowDesc.up.srcAddrInfo.socketAddress()),
      deleter_(std::move(endpointDeleter)) {}

VeskEndpointDescriptor::~VeskEndpointDescriptor() {
    deleter_(rdsockfd, wrsockfd);
}

EndpointPtr EndpointSlot::load() const {
    const MutexLock lock(mutex_);
    return endpoint_;
}

EndpointPtr EndpointSlot::exchange(EndpointPtr endpoint) {
    const MutexLock lock(mutex_);
    std::swap(endpoint_, endpoint);
    return endpoint;
}

}  // namespace vesk
