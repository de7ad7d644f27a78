#include "lib/datagram_batch.h"

#include <netinet/udp.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "lib/framing.h"
#include "lib/udp_socket.h"

namespace vesk::bench {
namespace {

// A merged message must fit into one IPv4 packet. batchSize is also the most segments that every
// kernel accepts.
constexpr std::size_t mergedBytesEnd = 65'000;

// Not a power of two: the beginnings of all buffers would compete for the same lines of the cache.
constexpr std::size_t mergedBufferSize = (1U << 16) + 576;

bool refusesMerging(int error) {
    return error == EIO || error == EINVAL || error == EMSGSIZE;
}

// The size of each datagram but the last in a received message; `whole` if it has only one.
std::size_t segmentSize(msghdr& header, std::size_t whole) {
    for (cmsghdr* control = CMSG_FIRSTHDR(&header); control != nullptr;
         control = CMSG_NXTHDR(&header, control)) {
        if (control->cmsg_level == SOL_UDP && control->cmsg_type == UDP_GRO) {
            int size = 0;
            std::memcpy(&size, CMSG_DATA(control), sizeof size);
            return size > 0 ? static_cast<std::size_t>(size) : whole;
        }
    }
    return whole;
}

}  // namespace

void SendBatch::add(std::span<const std::byte> datagram, const sockaddr_in& destination) {
    // The kernel only reads the bytes, but the type iovec has no const.
    vectors_[count_] = {const_cast<std::byte*>(datagram.data()), datagram.size()};
    destinations_[count_] = destination;
    if (merging_ == Merging::off || !joinLastMessage(count_)) {
        makeMessage(count_);
    }
    ++count_;
}

std::size_t SendBatch::send(int fd) {
    std::size_t sent = 0;
    // An ICMP error for an earlier datagram makes the next call fail once. If there are more errors
    // than datagrams, no datagram gets through.
    for (std::size_t failures = 0; sent < messageCount_ && failures <= count_;) {
        const int result =
            ::sendmmsg(fd, &messages_[sent], static_cast<unsigned>(messageCount_ - sent), 0);
        if (result > 0) {
            countMerged(sent, sent + static_cast<std::size_t>(result));
            sent += static_cast<std::size_t>(result);
        } else if (errno == ECONNREFUSED || errno == EINTR) {
            ++failures;
        } else if (isMerged(sent) && refusesMerging(errno)) {
            separateFrom(sent);
        } else {
            break;
        }
    }
    const std::size_t accepted = sent < messageCount_ ? firstDatagramOf(sent) : count_;
    count_ = 0;
    messageCount_ = 0;
    return accepted;
}

bool SendBatch::joinLastMessage(std::size_t datagram) {
    if (messageCount_ == 0) {
        return false;
    }
    msghdr& last = messages_[messageCount_ - 1].msg_hdr;
    const std::size_t size = vectors_[datagram].iov_len;
    if (size == 0 || size != last.msg_iov->iov_len ||
        (last.msg_iovlen + 1) * size >= mergedBytesEnd ||
        !sameAddress(destinations_[datagram], destinations_[datagram - 1])) {
        return false;
    }
    ++last.msg_iovlen;
    if (last.msg_iovlen == 2) {
        setSegmentSize(messageCount_ - 1);
    }
    return true;
}

void SendBatch::makeMessage(std::size_t datagram) {
    msghdr& header = messages_[messageCount_].msg_hdr;
    header = {};
    header.msg_iov = &vectors_[datagram];
    header.msg_iovlen = 1;
    if (destinations_[datagram].sin_family != AF_UNSPEC) {
        header.msg_name = &destinations_[datagram];
        header.msg_namelen = sizeof(sockaddr_in);
    }
    ++messageCount_;
}

void SendBatch::setSegmentSize(std::size_t message) {
    msghdr& header = messages_[message].msg_hdr;
    header.msg_control = segmentSizes_[message].control.data();
    header.msg_controllen = segmentSizes_[message].control.size();
    cmsghdr* const control = CMSG_FIRSTHDR(&header);
    const auto size = static_cast<std::uint16_t>(header.msg_iov->iov_len);
    control->cmsg_level = SOL_UDP;
    control->cmsg_type = UDP_SEGMENT;
    control->cmsg_len = CMSG_LEN(sizeof size);
    std::memcpy(CMSG_DATA(control), &size, sizeof size);
}

void SendBatch::separateFrom(std::size_t message) {
    merging_ = Merging::off;
    std::size_t datagram = firstDatagramOf(message);
    for (messageCount_ = message; datagram < count_; ++datagram) {
        makeMessage(datagram);
    }
}

void SendBatch::countMerged(std::size_t firstMessage, std::size_t end) {
    for (std::size_t message = firstMessage; message < end; ++message) {
        mergedMessages_ += isMerged(message) ? 1 : 0;
    }
}

std::size_t SendBatch::firstDatagramOf(std::size_t message) const {
    return static_cast<std::size_t>(messages_[message].msg_hdr.msg_iov - vectors_.data());
}

ReceiveBatch::ReceiveBatch(Merging merging) : merging_(merging) {
    const std::size_t bufferSize = merging == Merging::on ? mergedBufferSize : maxDatagramSize;
    buffers_.resize(batchSize * bufferSize);
    datagrams_.reserve(batchSize);
    for (std::size_t i = 0; i < batchSize; ++i) {
        vectors_[i] = {&buffers_[i * bufferSize], bufferSize};
        messages_[i].msg_hdr.msg_iov = &vectors_[i];
        messages_[i].msg_hdr.msg_iovlen = 1;
        messages_[i].msg_hdr.msg_name = &sources_[i];
        prepare(i);
    }
}

std::size_t ReceiveBatch::receive(int fd, int flags) {
    for (std::size_t i = 0; i < received_; ++i) {
        prepare(i);
    }
    const int result = ::recvmmsg(fd, messages_.data(), batchSize, flags, nullptr);
    received_ = result > 0 ? static_cast<std::size_t>(result) : 0;
    datagrams_.clear();
    for (std::size_t i = 0; i < received_; ++i) {
        split(i);
    }
    return datagrams_.size();
}

// Sets the lengths that a receive call changes, which it does only for what it received.
void ReceiveBatch::prepare(std::size_t message) {
    msghdr& header = messages_[message].msg_hdr;
    header.msg_namelen = sizeof(sockaddr_in);
    if (merging_ == Merging::on) {
        header.msg_control = segmentSizes_[message].control.data();
        header.msg_controllen = segmentSizes_[message].control.size();
    }
}

void ReceiveBatch::split(std::size_t message) {
    std::span<std::byte> rest(static_cast<std::byte*>(vectors_[message].iov_base),
                              messages_[message].msg_len);
    const std::size_t size = merging_ == Merging::on
                                 ? segmentSize(messages_[message].msg_hdr, rest.size())
                                 : rest.size();
    // An empty message is one datagram too.
    do {
        const auto bytes = rest.first(std::min(size, rest.size()));
        datagrams_.push_back({bytes, message});
        rest = rest.subspan(bytes.size());
    } while (!rest.empty());
}

}  // namespace vesk::bench
