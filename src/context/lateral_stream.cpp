#include "context/lateral_stream.h"

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

}  // namespace vesk
