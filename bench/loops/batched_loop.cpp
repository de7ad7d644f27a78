// The lower limit of the cost for a forwarder of this kind: the same work as the bare loop, but up
// to 64 datagrams per system call and the cheapest correct HMAC.
#include "lib/datagram_batch.h"
#include "loops/hmac_engines.h"
#include "loops/loop_program.h"

namespace vesk::bench {
namespace {

using BatchedLoop = Loop<PrecomputedHmac>;

void upward(BatchedLoop& loop) {
    ReceiveBatch received;
    SendBatch toSend;
    while (!loop.stopping.load(std::memory_order_relaxed)) {
        const std::size_t count = received.receive(loop.downstream.fd(), MSG_WAITFORONE);
        for (std::size_t i = 0; i < count; ++i) {
            if (auto* flow = loop.pass(&LoopFlow<PrecomputedHmac>::up, received.datagram(i))) {
                flow->peer.store(received.source(i));
                toSend.add(received.datagram(i), flow->service);
            }
        }
        toSend.send(loop.upstream.fd());
    }
}

void downward(BatchedLoop& loop) {
    ReceiveBatch received;
    SendBatch toSend;
    while (!loop.stopping.load(std::memory_order_relaxed)) {
        const std::size_t count = received.receive(loop.upstream.fd(), MSG_WAITFORONE);
        for (std::size_t i = 0; i < count; ++i) {
            if (auto* flow = loop.pass(&LoopFlow<PrecomputedHmac>::down, received.datagram(i))) {
                toSend.add(received.datagram(i), flow->peer.load());
            }
        }
        toSend.send(loop.downstream.fd());
    }
}

}  // namespace
}  // namespace vesk::bench

int main(int argc, char** argv) {
    return vesk::bench::loopMain<vesk::bench::PrecomputedHmac>(
        {argv, static_cast<std::size_t>(argc)}, vesk::bench::upward, vesk::bench::downward);
}
