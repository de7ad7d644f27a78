#include "support/loopback_forwarder.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <map>
#include <string>

#include "base/command_line.h"
#include "datapath/downstream.h"
#include "datapath/receive_batch.h"
#include "flow/commands/label_commands.h"
#include "net/endpoint_sockets.h"
#include "net/socket_options.h"
#include "poll/poll_channel.h"
#include "support/require.h"

namespace vesk::fuzz {

namespace {

constexpr std::uint32_t auxPrefix = 9;
constexpr std::uint32_t auxUpLabel = 0x00770000;

SocketAddress loopback(int family) {
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    ipv4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr_in6 ipv6{};
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_addr = in6addr_loopback;
    return family == AF_INET6
               ? SocketAddress(reinterpret_cast<const sockaddr*>(&ipv6), sizeof(ipv6))
               : SocketAddress(reinterpret_cast<const sockaddr*>(&ipv4), sizeof(ipv4));
}

SocketAddress addressOf(int socket) {
    SocketAddress address;
    address.length = sizeof(address.storage);
    require(getsockname(socket, address.get(), &address.length) == 0, "a socket has an address");
    return address;
}

UniqueFd loopbackSocket(int family) {
    UniqueFd fd(socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP));
    const SocketAddress address = loopback(family);
    require(fd && bind(fd.get(), address.get(), address.length) == 0, "loopback sockets are there");
    return fd;
}

/// As "start" makes one, but non-blocking and on a port chosen by the kernel.
EndpointPtr listeningEndpoint() {
    UniqueFd fd = loopbackSocket(AF_INET);
    Vesk_requestLocalDestAddr(fd.get(), AF_INET);
    const SocketAddress bound = addressOf(fd.get());
    auto endpoint = std::make_shared<VeskEndpointDescriptor>(0, fd.get(), fd.get(), FlowDesc(),
                                                             closeEndpointSockets,
                                                             IPAddrInfo(bound.get(), bound.length));
    fd.release();
    return endpoint;
}

std::string keyWords(const std::string& use, const TestKey& key) {
    const std::string words = " " + use + "_algo " + key.digest;
    return key.bytes.empty() ? words : words + " " + use + "_key " + toHex(key.bytes);
}

std::string portOf(const LoopbackSocket& socket) {
    return std::to_string(IPAddrInfo(socket.address.get(), socket.address.length).port());
}

}  // namespace

LoopbackSocket::LoopbackSocket(int family)
    : fd(loopbackSocket(family)), address(addressOf(fd.get())) {}

Bytes LoopbackSocket::receive() const {
    std::array<std::uint8_t, 4096> buffer;
    const ssize_t received = recv(fd.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    return toBytes(View(buffer).first(received > 0 ? static_cast<std::size_t>(received) : 0));
}

bool Surroundings::quiet() const {
    std::array<pollfd, 4> sockets{{{peer.fd.get(), POLLIN, 0},
                                   {upstreamV4.fd.get(), POLLIN, 0},
                                   {upstreamV6.fd.get(), POLLIN, 0},
                                   {otherInstance.fd.get(), POLLIN, 0}}};
    return poll(sockets.data(), sockets.size(), 0) == 0;
}

const Surroundings& surroundings() {
    static const Surroundings instance;
    return instance;
}

const std::vector<std::uint32_t>& someLabels() {
    static const std::vector<std::uint32_t> labels{
        0x10001, 0x10002, 0x10003, 0x10004, 0x10005, auxPrefix << 16 | 5, 0x20001, 0x30001};
    return labels;
}

LoopbackForwarder::LoopbackForwarder(int version, bool joined)
    : context_(std::make_shared<ForwarderContext>(version)), receiver_(context_) {
    require(createPollSocks(context_->pollSocket, context_->serverPollSock) == 0, "a poll channel");
    context_->downstreamEndpoint.publish(LentEndpoint(listeningEndpoint()));
    context_->lateralEndpoint.publish(LentEndpoint(listeningEndpoint()));
    declareFlows();
    if (joined) {
        join();
    }
}

std::optional<KnownFlow> LoopbackForwarder::flowOf(std::uint32_t label) {
    const TestKey* const none = &someKeys().at(0);
    const TestKey* const sha1 = &someKeys().at(1);
    const TestKey* const sha256 = &someKeys().at(2);
    const LoopbackSocket* const ipv4 = &surroundings().upstreamV4;
    const LoopbackSocket* const ipv6 = &surroundings().upstreamV6;
    static const std::map<std::uint32_t, KnownFlow> flows{{0x10001, {none, none, 0x11, ipv4}},
                                                          {0x10002, {sha1, sha256, 0x12, ipv4}},
                                                          {0x10003, {sha256, sha1, 0x13, ipv6}},
                                                          {0x10004, {sha256, none, 0x14, ipv4}}};
    if (label >> 16 == auxPrefix) {
        return KnownFlow{sha256, none, auxUpLabel | (label & 0xFFFF), ipv4};
    }
    const auto found = flows.find(label);
    return found == flows.end() ? std::nullopt : std::optional(found->second);
}

void LoopbackForwarder::declareFlows() const {
    const std::map<std::uint32_t, std::string> extras{
        {0x10002, " up_out_dscp_v4 46"},
        {0x10003, " up_out_dscp_v6 10 is_multiplex true"},
        {0x10004, " down_aux_flow_label_prefix " + std::to_string(auxPrefix) +
                      " up_aux_flow_label " + std::to_string(auxUpLabel)},
        // Declared, but without an upstream address.
        {0x10005, ""}};
    for (const std::uint32_t label : {0x10001U, 0x10002U, 0x10003U, 0x10004U, 0x10005U}) {
        std::string words = "label " + std::to_string(label);
        if (const auto flow = flowOf(label)) {
            const bool ipv6 = flow->upstream == &surroundings().upstreamV6;
            words += " up_label " + std::to_string(flow->upLabel) + " up_addrinfo " +
                     (ipv6 ? "::1|" : "127.0.0.1|") + portOf(*flow->upstream) + " down_label " +
                     std::to_string(downLabel) + keyWords("down_in", *flow->down) +
                     keyWords("up_out", *flow->up) + keyWords("up_in", *flow->up) +
                     keyWords("down_out", *flow->down);
        }
        const auto extra = extras.find(label);
        words += extra == extras.end() ? "" : extra->second;
        require(setLabelAttrs(splitCommandLine(words), context_), "the flows are declared");
    }
}

void LoopbackForwarder::join() {
    LateralStream& lateral = context_->lateral;
    {
        const MutexLock lock(lateral.signingLock);
        lateral.signingKey.setKey(someKeys().at(2).bytes);
        lateral.signingKey.setAlgorithm(hmacSha256);
    }
    const SocketAddress& other = surroundings().otherInstance.address;
    const IPAddrInfo peer(other.get(), other.length);
    lateral.port = peer.port();
    lateral.index = thisInstance;
    lateral.maxQels = instanceCount;
    lateral.peers.set(vesk::fuzz::otherInstance, peer);
    lateral.running.store(true);
}

void LoopbackForwarder::carry(View datagram, const ReturnPath& returnPath) {
    const EndpointPtr endpoint = returnPath.empty() ? downstream() : lateral();
    const SocketAddress to = addressOf(endpoint->rdsockfd);
    const ssize_t sent = sendto(surroundings().peer.fd.get(), datagram.data(), datagram.size(), 0,
                                to.get(), to.length);
    require(sent == static_cast<ssize_t>(datagram.size()), "the peer can send");
    ReceiveBatch batch;
    require(batch.receiveNow(endpoint->rdsockfd) == 1,
            "what is sent on the loopback interface arrives");
    const ReceivedMessage message = batch.message(0, AF_INET);
    if (message.datagramCount() == 0) {
        require(datagram.empty(), "only an empty datagram has no bytes");
        return;
    }
    DownstreamReceiver receiver(*context_);
    downstreamPacketReceived({*endpoint, message.datagram(0), message.datagramLength(0),
                              message.sender(), message.localDestination(), returnPath},
                             receiver);
    receiver.endBatch();
}

void LoopbackForwarder::carryReply(View datagram, const VeskEndpointDescriptor& flow) {
    const SocketAddress bound = addressOf(flow.rdsockfd);
    const SocketAddress to =
        withPort(loopback(flow.family), IPAddrInfo(bound.get(), bound.length).port());
    const Surroundings& around = surroundings();
    const LoopbackSocket& from = flow.family == AF_INET6 ? around.upstreamV6 : around.upstreamV4;
    const ssize_t sent =
        sendto(from.fd.get(), datagram.data(), datagram.size(), 0, to.get(), to.length);
    require(sent == static_cast<ssize_t>(datagram.size()), "upstream can send");
    bool keep = true;
    const int result = upstreamSocketRecv(flow.rdsockfd, keep, receiver_);
    require(!keep, "one receive call drains the socket");
    require(result == (datagram.empty() ? 0 : 1), "the datagram is received");
    require(!receiver_.endPass(LogDelay()).has_value(), "a drained socket can be armed");
}

PollRequests LoopbackForwarder::applyPollRequests() const {
    PollRequests requests;
    PollRecord record{};
    while (recv(context_->serverPollSock.get(), record.data(), record.size(), MSG_DONTWAIT) > 0) {
        // Only one socket at a time is served here, so every datagram contains one record.
        const auto request = decodePollCtlMsg(record).value();
        if (request.op == EPOLL_CTL_ADD) {
            ++requests.watched;
        } else if (request.op == EPOLL_CTL_MOD) {
            ++requests.armed;
        } else {
            require(close(request.fd) == 0, "what is to be closed is open");
        }
    }
    return requests;
}

}  // namespace vesk::fuzz
