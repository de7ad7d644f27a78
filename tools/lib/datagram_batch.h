// Sends and receives many datagrams per system call, so that the programs around the measured one
// use little processor time.
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

/// Collects datagrams, which are not copied, and passes them to the kernel together.
class SendBatch {
 public:
    SendBatch() = default;
    SendBatch(const SendBatch&) = delete;
    SendBatch& operator=(const SendBatch&) = delete;

    /// Without a destination the datagram is sent to the address that the socket is connected to.
    /// The bytes must stay valid until send(); the destination is copied.
    void add(std::span<const std::byte> datagram);
    void add(std::span<const std::byte> datagram, const sockaddr_in& destination);

    bool full() const { return count_ == batchSize; }

    /// Sends the datagrams added and empties the batch. Returns how many the kernel accepted.
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

    /// Receives the waiting datagrams, at most batchSize. If there is none, the call returns 0 with
    /// the flag MSG_DONTWAIT, and waits for the first with MSG_WAITFORONE.
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
