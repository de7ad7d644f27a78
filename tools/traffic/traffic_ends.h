// The two ends of the path, in one thread: the peers, which send requests and receive replies, and
// the upstream service, which receives the requests and replies to them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "base/unique_fd.h"
#include "lib/datagram_batch.h"
#include "lib/udp_socket.h"
#include "traffic/datagram_pool.h"
#include "traffic/options.h"
#include "traffic/request_ledger.h"

namespace vesk::bench {

struct ArrivalCounts {
    std::uint64_t upstream = 0;     // requests that reached the service
    std::uint64_t peers = 0;        // replies that reached a peer
    std::uint64_t wrong = 0;        // arrivals that the forwarder should have sent differently
    std::uint64_t unexpected = 0;   // second answers to a request
    std::uint64_t wrongSource = 0;  // arrivals from another address than expected
    std::uint64_t verified = 0;     // arrivals whose HMAC and payload were checked
};

class TrafficEnds {
 public:
    TrafficEnds(const TrafficOptions& options, std::uint16_t forwarderPort, UdpSocket& service,
                const DatagramPool& pool, RequestLedger& ledger);

    /// Sends `count` requests, fewer if too many are open or the kernel accepts no more. Returns
    /// how many were sent.
    std::size_t sendRequests(std::size_t count);

    /// Waits for arrivals, for `patience` nanoseconds at most, and handles them.
    void serve(std::int64_t patience);

    const ArrivalCounts& counts() const { return counts_; }
    /// How many messages of several datagrams both ends have sent.
    std::uint64_t mergedSends() const { return toSend_.mergedMessages(); }

 private:
    static Merging merging(const TrafficOptions& options);
    std::size_t peerOf(std::size_t number) const;
    /// The address from which requests of a flow must come if sources are checked.
    sockaddr_in sourceOf(const FlowPlan& plan) const;
    void countSource(const sockaddr_in& source, const sockaddr_in& expected);
    void watch(UdpSocket& socket, std::uint32_t name);
    void takeRequests();
    void takeReplies(const UdpSocket& peer);
    bool isRight(std::span<const std::byte> arrival, std::span<const std::byte> original,
                 std::uint32_t label, const HmacKey& key);

    const TrafficOptions& options_;
    UdpSocket& service_;
    const sockaddr_in forwarder_;
    const DatagramPool& pool_;
    RequestLedger& ledger_;
    std::vector<UdpSocket> peers_;
    UniqueFd watched_;
    SendBatch toSend_;
    ReceiveBatch received_;
    ArrivalCounts counts_;
};

}  // namespace vesk::bench
