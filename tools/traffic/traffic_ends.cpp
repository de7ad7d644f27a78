#include "traffic/traffic_ends.h"

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <system_error>

#include "lib/authentication.h"
#include "lib/clocks.h"

namespace vesk::bench {
namespace {

constexpr std::uint32_t serviceName = UINT32_MAX;

}  // namespace

TrafficEnds::TrafficEnds(const TrafficOptions& options, std::uint16_t forwarderPort,
                         UdpSocket& service, const DatagramPool& pool, RequestLedger& ledger)
    : options_(options),
      service_(service),
      forwarder_(ipv4Address(options.address, forwarderPort)),
      pool_(pool),
      ledger_(ledger),
      watched_(::epoll_create1(EPOLL_CLOEXEC)),
      toSend_(merging(options)),
      received_(merging(options)) {
    watch(service_, serviceName);
    for (std::size_t i = 0; i < options.peers; ++i) {
        UdpSocket& peer = peers_.emplace_back();
        if (!options.checkSource) {
            // Connected, so that the socket receives only from the forwarder's address.
            peer.connectTo(forwarder_);
        }
        watch(peers_.back(), static_cast<std::uint32_t>(i));
    }
}

std::size_t TrafficEnds::sendRequests(std::size_t count) {
    count = std::min(count, ledger_.room());
    std::size_t sent = 0;
    while (sent < count) {
        const std::size_t first = ledger_.nextNumber();
        const std::size_t peer = peerOf(first);
        const std::size_t end = (first / pool_.size() + 1) * pool_.size();
        std::size_t added = 0;
        for (std::size_t number = first;
             sent + added < count && !toSend_.full() && number < end && peerOf(number) == peer;
             ++number, ++added) {
            if (options_.checkSource) {
                toSend_.add(pool_.request(number), forwarder_);
            } else {
                toSend_.add(pool_.request(number));
            }
        }
        const std::int64_t now = nowNanoseconds();
        const std::size_t taken = toSend_.send(peers_[peer].fd());
        ledger_.sent(taken, now);
        sent += taken;
        if (taken < added) {
            break;
        }
    }
    return sent;
}

void TrafficEnds::serve(std::int64_t patience) {
    std::array<epoll_event, batchSize> ready;
    const timespec timeout{patience / nanosecondsPerSecond, patience % nanosecondsPerSecond};
    const int count = ::epoll_pwait2(watched_.get(), ready.data(), ready.size(), &timeout, nullptr);
    // A signal may end the measured time.
    if (count < 0 && errno != EINTR) {
        throw std::system_error(errno, std::generic_category(), "epoll_pwait2");
    }
    for (int i = 0; i < count; ++i) {
        const std::uint32_t name = ready[static_cast<std::size_t>(i)].data.u32;
        if (name == serviceName) {
            takeRequests();
        } else {
            takeReplies(peers_[name]);
        }
    }
}

Merging TrafficEnds::merging(const TrafficOptions& options) {
    return options.mergeSends ? Merging::on : Merging::off;
}

std::size_t TrafficEnds::peerOf(std::size_t number) const {
    // Neighbouring flows share a peer, so that datagrams sent in turn can share a system call.
    return pool_.flowOf(number) * peers_.size() / options_.flows.flows;
}

sockaddr_in TrafficEnds::sourceOf(const FlowPlan& plan) const {
    sockaddr_in source = forwarder_;
    source.sin_port = htons(plan.sourcePort);
    return source;
}

void TrafficEnds::countSource(const sockaddr_in& source, const sockaddr_in& expected) {
    if (options_.checkSource && !sameAddress(source, expected)) {
        ++counts_.wrongSource;
    }
}

void TrafficEnds::watch(UdpSocket& socket, std::uint32_t name) {
    if (options_.mergeSends) {
        socket.mergeReceives();
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u32 = name;
    if (::epoll_ctl(watched_.get(), EPOLL_CTL_ADD, socket.fd(), &event) != 0) {
        throw std::system_error(errno, std::generic_category(), "epoll_ctl");
    }
}

void TrafficEnds::takeRequests() {
    const std::size_t count = received_.receive(service_.fd(), MSG_DONTWAIT);
    const std::int64_t now = nowNanoseconds();
    for (std::size_t i = 0; i < count; ++i) {
        const auto arrival = received_.datagram(i);
        const auto number = pool_.numberIn(arrival);
        if (!number || !isRight(arrival, pool_.request(*number), pool_.planOf(*number).upLabel,
                                pool_.planOf(*number).upOut)) {
            ++counts_.wrong;
            continue;
        }
        ++counts_.upstream;
        countSource(received_.source(i), sourceOf(pool_.planOf(*number)));
        if (!options_.oneWay) {
            toSend_.add(pool_.reply(*number), received_.source(i));
            if (toSend_.full()) {
                toSend_.send(service_.fd());
            }
        } else if (!ledger_.answered(*number, now)) {
            ++counts_.unexpected;
        }
    }
    toSend_.send(service_.fd());
}

void TrafficEnds::takeReplies(const UdpSocket& peer) {
    const std::size_t count = received_.receive(peer.fd(), MSG_DONTWAIT);
    const std::int64_t now = nowNanoseconds();
    for (std::size_t i = 0; i < count; ++i) {
        const auto arrival = received_.datagram(i);
        const auto number = pool_.numberIn(arrival);
        if (!number || !isRight(arrival, pool_.reply(*number), pool_.planOf(*number).downLabel,
                                pool_.planOf(*number).downOut)) {
            ++counts_.wrong;
            continue;
        }
        ++counts_.peers;
        countSource(received_.source(i), forwarder_);
        if (!ledger_.answered(*number, now)) {
            ++counts_.unexpected;
        }
    }
}

bool TrafficEnds::isRight(std::span<const std::byte> arrival, std::span<const std::byte> original,
                          std::uint32_t label, const HmacKey& key) {
    if (readLabel(*options_.framing, arrival) != label) {
        return false;
    }
    if ((counts_.upstream + counts_.peers) % options_.verifyEvery != 0) {
        return true;
    }
    ++counts_.verified;
    OneCallHmac hmac(key);
    const std::size_t payloadOffset = options_.framing->headerSize;
    return findPayload(*options_.framing, arrival) == payloadOffset &&
           std::ranges::equal(arrival.subspan(payloadOffset), original.subspan(payloadOffset)) &&
           checkDatagram(hmac, *options_.framing, arrival, payloadOffset);
}

}  // namespace vesk::bench
