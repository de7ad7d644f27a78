// The path of a peer's datagrams to upstream over real sockets. The input selects the set-up of the
// forwarder and then each datagram that is sent: either raw bytes, or a payload to be framed for a
// label, with a correct or a wrong HMAC.
#include <unistd.h>

#include <algorithm>
#include <set>

#include "net/endpoint_manager.h"
#include "support/byte_reader.h"
#include "support/datagram_choice.h"
#include "support/loopback_forwarder.h"
#include "support/require.h"

namespace vesk::fuzz {
namespace {

/// One forwarder, and the conditions that must hold after each datagram.
class Run {
 public:
    Run(int version, bool joined)
        : version_(version), joined_(joined), forwarder_(version, joined) {}

    void step(View datagram, unsigned choice) {
        if ((choice & flowExpiresFirst) != 0) {
            expireAll();
        }
        const bool laterally = (choice & overLateralStream) != 0;
        forwarder_.carry(datagram, laterally ? someReturnPath() : ReturnPath());
        if (!datagram.empty()) {
            follow(datagram.first(std::min(datagram.size(), maxDatagramSize)), laterally);
        }
        require(forwarder_.applyPollRequests().watched == created_, "new sockets are watched");
        created_ = 0;
        require(forwarder_.downstream()->counters.rxDgError.value() == rejected_,
                "each rejected datagram is counted once");
        require(forwarder_.context().endpointManager->endpoints().size() == flows_.size(),
                "only flows that had a good datagram stay");
        require(surroundings().quiet(), "nothing is sent but what has to be");
    }

 private:
    void expireAll() {
        EndpointManager& manager = *forwarder_.context().endpointManager;
        for (const EndpointPtr& endpoint : manager.endpoints()) {
            manager.deleteEndpoint(*endpoint);
        }
        forwarder_.applyPollRequests();
        flows_.clear();
    }

    void follow(View datagram, bool laterally) {
        const auto framed = readFramed(version_, datagram);
        if (!framed) {
            ++rejected_;
            return;
        }
        const std::uint32_t owner = (framed->label >> 16) % instanceCount;
        if (joined_ && owner != thisInstance) {
            followToOwner(datagram, owner, laterally);
        } else {
            followUpstream(datagram, framed->label);
        }
    }

    void followToOwner(View datagram, std::uint32_t owner, bool laterally) {
        const VeskEndpointDescriptor& lateral = *forwarder_.lateral();
        if (laterally || owner != otherInstance) {
            ++rejected_;
        } else if (datagram.size() + 34 > maxDatagramSize) {
            require(lateral.counters.txDgDropped.value() == ++laterallyDropped_,
                    "too long: dropped");
        } else {
            const SocketAddress& sender = surroundings().peer.address;
            const Bytes header = lateralHeader(1, sender.bytes(), someKeys().at(2));
            require(surroundings().otherInstance.receive() == join({header, datagram}),
                    "the owner gets the datagram with its sender");
        }
    }

    void followUpstream(View datagram, std::uint32_t label) {
        const auto flow = LoopbackForwarder::flowOf(label);
        if (!flow) {
            ++rejected_;
            return;
        }
        const bool isNew = !flows_.contains(label);
        created_ += isNew ? 1 : 0;
        if (!std::ranges::equal(datagram, signedWith(version_, datagram, *flow->down))) {
            ++rejected_;
            return;
        }
        flows_.insert(label);
        const Bytes expected =
            signedWith(version_, relabelled(version_, datagram, flow->upLabel), *flow->up);
        require(flow->upstream->receive() == expected,
                "upstream gets the datagram as it has to be");
        const EndpointPtr endpoint =
            forwarder_.context().endpointManager->findEndpointByLabel(label);
        require(endpoint != nullptr, "a flow that had a good datagram stays");
        require(endpoint->route.load().peer == surroundings().peer.address,
                "the sender is remembered");
    }

    const int version_;
    const bool joined_;
    LoopbackForwarder forwarder_;
    std::uint64_t rejected_ = 0;
    std::uint64_t laterallyDropped_ = 0;
    int created_ = 0;
    std::set<std::uint32_t> flows_;
};

int lowestFreeDescriptor() {
    return UniqueFd(dup(STDERR_FILENO)).get();
}

}  // namespace
}  // namespace vesk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vesk::fuzz;
    surroundings();
    const int free = lowestFreeDescriptor();
    ByteReader input(View(data, size));
    const unsigned setUp = input.byte();
    const int version = (setUp & 1U) != 0 ? 1 : 2;
    {
        Run run(version, (setUp & 2U) != 0);
        while (!input.empty()) {
            const unsigned choice = input.byte();
            run.step(nextDatagram(input, choice, version, Towards::upstream), choice);
        }
    }
    require(lowestFreeDescriptor() == free, "every descriptor is given back");
    return 0;
}
