// The baseline for the forwarder: receives, checks, relabels, signs and sends one datagram at a
// time with two system calls and libcrypto's HMAC calls. One upstream socket serves all flows,
// there are no lookups, and no thread wakes another one.
#include <sys/socket.h>

#include <array>

#include "loops/hmac_engines.h"
#include "loops/loop_program.h"

namespace vesk::bench {
namespace {

using BareLoop = Loop<CachedHmac>;
using DatagramBuffer = std::array<std::byte, maxDatagramSize>;

// Returns an empty span for a failed or empty receive.
std::span<std::byte> receive(const UdpSocket& socket, DatagramBuffer& buffer, sockaddr_in& source) {
    socklen_t length = sizeof source;
    const ssize_t got = ::recvfrom(socket.fd(), buffer.data(), buffer.size(), 0,
                                   reinterpret_cast<sockaddr*>(&source), &length);
    return std::span(buffer).first(got > 0 ? static_cast<std::size_t>(got) : 0);
}

void send(const UdpSocket& socket, std::span<const std::byte> datagram,
          const sockaddr_in& destination) {
    ::sendto(socket.fd(), datagram.data(), datagram.size(), 0,
             reinterpret_cast<const sockaddr*>(&destination), sizeof destination);
}

void upward(BareLoop& loop) {
    DatagramBuffer buffer;
    sockaddr_in source{};
    while (!loop.stopping.load(std::memory_order_relaxed)) {
        const auto datagram = receive(loop.downstream, buffer, source);
        if (auto* flow = loop.pass(&LoopFlow<CachedHmac>::up, datagram)) {
            flow->peer.store(source);
            send(loop.upstream, datagram, flow->service);
        }
    }
}

void downward(BareLoop& loop) {
    DatagramBuffer buffer;
    sockaddr_in source{};
    while (!loop.stopping.load(std::memory_order_relaxed)) {
        const auto datagram = receive(loop.upstream, buffer, source);
        if (auto* flow = loop.pass(&LoopFlow<CachedHmac>::down, datagram)) {
            send(loop.downstream, datagram, flow->peer.load());
        }
    }
}

}  // namespace
}  // namespace vesk::bench

int main(int argc, char** argv) {
    return vesk::bench::loopMain<vesk::bench::CachedHmac>(
        {argv, static_cast<std::size_t>(argc)}, vesk::bench::upward, vesk::bench::downward);
}
