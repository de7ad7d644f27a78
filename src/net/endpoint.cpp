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
                                               EndpointDeleter endpointDeleter,
                                               const IPAddrInfo& boundTo)
    : label(flowLabel),
      rdsockfd(readSocket),
      wrsockfd(writeSocket),
      family(boundTo.resolved() ? boundTo.family() : flowDesc.up.addrInfo.family()),
      localAddress(boundTo),
      flow(flowDesc),
      route{flowDesc.down.addrInfo.socketAddress(),
            configuredLocalAddress(flowDesc.down.srcAddrInfo.socketAddress()),
            {}},
      upstreamLocal(configuredLocalAddress(flowDesc.up.srcAddrInfo.socketAddress())),
      deleter_(std::move(endpointDeleter)) {}

VeskEndpointDescriptor::~VeskEndpointDescriptor() {
    deleter_(rdsockfd, wrsockfd);
}

void VeskEndpointDescriptor::detachSockets() {
    deleter_ = [](int, int) {};
}

}  // namespace vesk
