#include "kernel/socket_totals.h"

#include <algorithm>
#include <utility>

namespace vesk::controller {

namespace {

const OwnSocket* find(std::span<const OwnSocket> own, std::uint64_t inode) {
    const auto place = std::lower_bound(
        own.begin(), own.end(), inode,
        [](const OwnSocket& socket, std::uint64_t wanted) { return socket.inode < wanted; });
    return place != own.end() && place->inode == inode ? &*place : nullptr;
}

void accumulate(SocketFigures& figures, const UdpSocket& socket) {
    ++figures.sockets;
    figures.receiveQueue += socket.receiveQueue;
    figures.sendQueue += socket.sendQueue;
}

bool is(const Listener& listener, const UdpSocket& socket) {
    return listener.port == socket.port && listener.address == socket.address;
}

}  // namespace

Side sideOf(const UdpSocket& socket, const Listeners& listeners) {
    if (is(listeners.downstream, socket)) {
        return Side::downstream;
    }
    return is(listeners.lateral, socket) ? Side::lateral : Side::upstream;
}

void SocketTotals::add(std::span<const UdpSocket> sockets, std::span<const OwnSocket> own,
                       const Listeners& listeners) {
    present_ = {};
    flows_.clear();
    Drops now;
    for (const UdpSocket& socket : sockets) {
        const OwnSocket* const ours = find(own, socket.inode);
        // Sockets are opened and closed while the table is read, so one may be in it twice.
        if (ours == nullptr || !now.emplace(socket.inode, socket.drops).second) {
            continue;
        }
        const Side side = sideOf(socket, listeners);
        const auto place = static_cast<std::size_t>(side);
        const auto before = last_.find(socket.inode);
        const std::uint64_t known = before == last_.end() ? 0 : before->second;
        // Fewer than before: a new socket has the same inode.
        const std::uint64_t fresh = socket.drops < known ? socket.drops : socket.drops - known;
        accumulate(present_.at(place), socket);
        drops_.at(place) += fresh;
        if (side == Side::upstream && ours->label != 0) {
            FlowSocket& flow = flows_[ours->label];
            accumulate(flow.present, socket);
            flow.newDrops += fresh;
        }
    }
    last_ = std::move(now);
}

}  // namespace vesk::controller
