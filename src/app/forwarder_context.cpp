#include "app/forwarder_context.h"

#include "datapath/wire_layout.h"
#include "net/endpoint_manager.h"
#include "tasks/periodic_task.h"

namespace vesk {

void LateralPeers::set(std::uint32_t index, const IPAddrInfo& address) {
    const WriteLock lock(lock_);
    peers_.insert_or_assign(index, address);
}

std::optional<SocketAddress> LateralPeers::find(std::uint32_t index, std::uint16_t port) const {
    const ReadLock lock(lock_);
    const auto found = peers_.find(index);
    if (found == peers_.end()) {
        return std::nullopt;
    }
    return withPort(found->second.socketAddress(), port);
}

bool LateralPeers::empty() const {
    const ReadLock lock(lock_);
    return peers_.empty();
}

ForwarderContext::ForwarderContext(int framingVersion)
    : framing(framingOfVersion(framingVersion)),
      endpointManager(std::make_shared<EndpointManager>()) {}

ForwarderContext::~ForwarderContext() = default;

}  // namespace vesk
