// Many datagrams per system call, so that a program at the edge of the measurement costs little
// beside the one that is measured.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <span>
#include <vector>

#include "lib/framing.h"

namespace vesk::bench {

inline constexpr std::size_t batchSize = 64;

/// Collects datagrams that live elsewhere and hands them to the kernel together.
class SendBatch {
 public:
    SendBatch() = default;
    SendBatch(const SendBatch&) = delete;
    SendBatch& operator=(const SendBatch&) = delete;

    /// Without a destination the datagram goes where the socket is connected to. The bytes must
    /// stand until send(); the destination is copied.
    void add(std::span<const std::byte> datagram);
    void add(std::span<const std::byte> datagram, const sockaddr_in& destination);

    bool full() const { return count_ == batchSize; }

    /// Sends what was added and forgets it. Returns how many datagrams the kernel took.
    std::size_t send(int fd);

 private:
    std::size_t count_ = 0;
    std::array<mmsghdr, batchSize> messages_{};
    std::array<iovec, batchSize> vectors_{};
    std::array<sockaddr_in, batchSize> destinations_{};
};

class ReceiveBatch {
 public:
    ReceiveBatch();
    ReceiveBatch(const ReceiveBatch&) = delete;
    ReceiveBatch& operator=(const ReceiveBatch&) = delete;

    /// Takes what is waiting, up to batchSize datagrams. `flags` says what to do when nothing is:
    /// MSG_DONTWAIT returns 0, MSG_WAITFORONE blocks for the first.
    std::size_t receive(int fd, int flags);

    std::span<std::byte> datagram(std::size_t i);
    const sockaddr_in& source(std::size_t i) const { return sources_[i]; }

 private:
    using Buffer = std::array<std::byte, maxDatagramSize>;

    std::size_t received_ = 0;
    std::array<mmsghdr, batchSize> messages_{};
    std::array<iovec, batchSize> vectors_{};
    std::array<sockaddr_in, batchSize> sources_{};
    std::vector<Buffer> buffers_;
};

}  // namespace vesk::bench
