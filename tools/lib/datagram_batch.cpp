#include "lib/datagram_batch.h"

#include <cerrno>

namespace vesk::bench {

void SendBatch::add(std::span<const std::byte> datagram) {
    // The kernel only reads the bytes, but the type iovec has no const.
    vectors_[count_] = {const_cast<std::byte*>(datagram.data()), datagram.size()};
    msghdr& header = messages_[count_].msg_hdr;
    header = {};
    header.msg_iov = &vectors_[count_];
    header.msg_iovlen = 1;
    ++count_;
}

void SendBatch::add(std::span<const std::byte> datagram, const sockaddr_in& destination) {
    add(datagram);
    destinations_[count_ - 1] = destination;
    msghdr& header = messages_[count_ - 1].msg_hdr;
    header.msg_name = &destinations_[count_ - 1];
    header.msg_namelen = sizeof(sockaddr_in);
}

std::size_t SendBatch::send(int fd) {
    std::size_t sent = 0;
    // An ICMP error for an earlier datagram makes the next call fail once. If there are more errors
    // than datagrams, no datagram gets through.
    for (std::size_t failures = 0; sent < count_ && failures <= count_;) {
        const int result =
            ::sendmmsg(fd, &messages_[sent], static_cast<unsigned>(count_ - sent), 0);
        if (result > 0) {
            sent += static_cast<std::size_t>(result);
        } else if (errno == ECONNREFUSED || errno == EINTR) {
            ++failures;
        } else {
            break;
        }
    }
    count_ = 0;
    return sent;
}

ReceiveBatch::ReceiveBatch() : buffers_(batchSize) {
    for (std::size_t i = 0; i < batchSize; ++i) {
        vectors_[i] = {buffers_[i].data(), buffers_[i].size()};
        messages_[i].msg_hdr.msg_iov = &vectors_[i];
        messages_[i].msg_hdr.msg_iovlen = 1;
        messages_[i].msg_hdr.msg_name = &sources_[i];
        messages_[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
    }
}

std::size_t ReceiveBatch::receive(int fd, int flags) {
    // The last call changed the address lengths only for the datagrams that it received.
    for (std::size_t i = 0; i < received_; ++i) {
        messages_[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
    }
    const int result = ::recvmmsg(fd, messages_.data(), batchSize, flags, nullptr);
    received_ = result > 0 ? static_cast<std::size_t>(result) : 0;
    return received_;
}

std::span<std::byte> ReceiveBatch::datagram(std::size_t i) {
    return std::span(buffers_[i]).first(messages_[i].msg_len);
}

}  // namespace vesk::bench
