#include "net/endpoint.h"

#include <utility>

namespace vesk {

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
      route({flowDesc.down.addrInfo.socketAddress(),
             configuredLocalAddress(flowDesc.down.srcAddrInfo.socketAddress()),
             {}}),
      upstreamLocal(configuredLocalAddress(flowDesc.up.srcAddrInfo.socketAddress())),
      deleter_(std::move(endpointDeleter)) {}

VeskEndpointDescriptor::~VeskEndpointDescriptor() {
    deleter_(rdsockfd, wrsockfd);
}

void VeskEndpointDescriptor::detachSockets() {
    deleter_ = [](int, int) {};
}

}  // namespace vesk
