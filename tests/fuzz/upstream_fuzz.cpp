// The path of replies to the peer over real sockets. The input selects the set-up of the forwarder,
// the flow that is opened, and then each reply that upstream sends to that flow's socket, as in the
// downstream target.
#include <algorithm>
#include <array>

#include "net/endpoint_manager.h"
#include "support/byte_reader.h"
#include "support/datagram_choice.h"
#include "support/loopback_forwarder.h"
#include "support/require.h"

namespace vesk::fuzz {
namespace {

/// One forwarder with one flow, and the conditions that must hold after each reply.
class Run {
 public:
    Run(int version, bool joined, std::uint32_t label, bool laterally)
        : version_(version),
          forwarder_(version, joined),
          returnPath_(laterally ? someReturnPath() : ReturnPath()),
          wrapped_(joined && laterally),
          flow_(LoopbackForwarder::flowOf(label).value()),
          endpoint_(open(label)) {}

    void step(View reply) {
        forwarder_.carryReply(reply, *endpoint_);
        require(forwarder_.applyPollRequests().armed == 1, "a drained socket is armed once");
        if (!reply.empty()) {
            ++received_;
            follow(reply.first(std::min(reply.size(), maxDatagramSize)));
        }
        const EndpointCounters& counters = endpoint_->counters;
        require(counters.rxDg.value() == received_, "each reply is counted");
        require(counters.rxDgError.value() == doubtful_, "each doubtful reply is counted once");
        require(counters.dnTxDg.value() == returned_, "each reply that left is counted");
        require(forwarder_.lateral()->counters.txDgDropped.value() == tooLong_,
                "each reply that does not fit its header is counted");
        require(surroundings().quiet(), "nothing is sent but what has to be");
    }

 private:
    /// The first request opens the flow and sets the address to which replies are sent.
    EndpointPtr open(std::uint32_t label) {
        const Bytes request = signedWith(
            version_, framedDatagram(version_, label, std::array<std::uint8_t, 1>{}), *flow_.down);
        forwarder_.carry(request, returnPath_);
        require(!flow_.upstream->receive().empty(), "the request reaches upstream");
        require(forwarder_.applyPollRequests().watched == 1, "the flow's socket is watched");
        return forwarder_.context().endpointManager->findEndpointByLabel(label);
    }

    void follow(View reply) {
        const auto framed = readFramed(version_, reply);
        const bool otherFlow = framed && framed->label != endpoint_->label;
        if (!framed || (otherFlow && endpoint_->flow.isMultiplex)) {
            // On a multiplexed socket only the label selects the flow of a reply.
            ++doubtful_;
            return;
        }
        doubtful_ += otherFlow && framed->label != 0 ? 1 : 0;
        if (!std::ranges::equal(reply, signedWith(version_, reply, *flow_.up))) {
            ++doubtful_;
            return;
        }
        followToPeer(signedWith(version_, relabelled(version_, reply, downLabel), *flow_.down));
    }

    void followToPeer(const Bytes& expected) {
        if (!wrapped_) {
            ++returned_;
            require(surroundings().peer.receive() == expected,
                    "the peer gets the reply as it has to be");
        } else if (expected.size() + 1 + returnPath_.bytes().size() > maxDatagramSize) {
            ++tooLong_;
        } else {
            ++returned_;
            const Bytes header = join({Bytes{2}, returnPath_.bytes()});
            require(surroundings().peer.receive() == join({header, expected}),
                    "the reply takes its header back");
        }
    }

    const int version_;
    LoopbackForwarder forwarder_;
    const ReturnPath returnPath_;
    const bool wrapped_;
    const KnownFlow flow_;
    const EndpointPtr endpoint_;
    std::uint64_t received_ = 0;
    std::uint64_t doubtful_ = 0;
    std::uint64_t returned_ = 0;
    std::uint64_t tooLong_ = 0;
};

/// The flows with an upstream address: the four declared ones and an auxiliary one.
std::uint32_t reachableLabel(unsigned number) {
    return someLabels().at(std::array<unsigned, 8>{0, 1, 2, 3, 5, 0, 1, 2}.at(number % 8));
}

}  // namespace
}  // namespace vesk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vesk::fuzz;
    ByteReader input(View(data, size));
    const unsigned setUp = input.byte();
    const int version = (setUp & 1U) != 0 ? 1 : 2;
    Run run(version, (setUp & 2U) != 0, reachableLabel(setUp >> 3U), (setUp & 4U) != 0);
    while (!input.empty()) {
        const unsigned choice = input.byte();
        run.step(nextDatagram(input, choice, version, Towards::downstream));
    }
    return 0;
}
