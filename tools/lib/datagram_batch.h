// Sends and receives many datagrams per system call, so that the programs around the measured one
// use little processor time.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vesk::bench {

inline constexpr std::size_t batchSize = 64;

/// Whether the kernel gets and returns several datagrams as one message, as a network card that
/// offloads segmentation and merges on receive would.
enum class Merging : bool { off, on };

/// Collects datagrams, which are not copied, and passes them to the kernel together.
class SendBatch {
 public:
    explicit SendBatch(Merging merging = Merging::off) : merging_(merging) {}
    SendBatch(const SendBatch&) = delete;
    SendBatch& operator=(const SendBatch&) = delete;

    /// Without a destination the datagram is sent to the address that the socket is connected to.
    /// The bytes must stay valid until send(); the destination is copied.
    void add(std::span<const std::byte> datagram) { add(datagram, {}); }
    void add(std::span<const std::byte> datagram, const sockaddr_in& destination);

    bool full() const { return count_ == batchSize; }

    /// Sends the datagrams added, in order, and empties the batch. Returns how many the kernel
    /// accepted. If the kernel refuses a merged message, its datagrams and all later ones of this
    /// batch object are sent singly.
    std::size_t send(int fd);

    /// How many messages of several datagrams the kernel has accepted.
    std::uint64_t mergedMessages() const { return mergedMessages_; }

 private:
    struct alignas(cmsghdr) SegmentSize {
        std::array<std::byte, CMSG_SPACE(sizeof(std::uint16_t))> control;
    };

    bool isMerged(std::size_t message) const { return messages_[message].msg_hdr.msg_iovlen > 1; }
    bool joinLastMessage(std::size_t datagram);
    void makeMessage(std::size_t datagram);
    void setSegmentSize(std::size_t message);
    void separateFrom(std::size_t message);
    void countMerged(std::size_t firstMessage, std::size_t end);
    std::size_t firstDatagramOf(std::size_t message) const;

    Merging merging_;
    std::size_t count_ = 0;         // datagrams
    std::size_t messageCount_ = 0;  // each of one or several consecutive datagrams
    std::uint64_t mergedMessages_ = 0;
    std::array<mmsghdr, batchSize> messages_{};
    std::array<SegmentSize, batchSize> segmentSizes_{};  // of messages
    std::array<iovec, batchSize> vectors_{};             // of datagrams, as are the destinations
    std::array<sockaddr_in, batchSize> destinations_{};  // without a family: none
};

class ReceiveBatch {
 public:
    explicit ReceiveBatch(Merging merging = Merging::off);
    ReceiveBatch(const ReceiveBatch&) = delete;
    ReceiveBatch& operator=(const ReceiveBatch&) = delete;

    /// Receives the waiting datagrams: at most batchSize messages, each one datagram unless the
    /// socket merges. Returns the number of datagrams. If there is none, the call returns 0 with
    /// the flag MSG_DONTWAIT, and waits for the first with MSG_WAITFORONE.
    std::size_t receive(int fd, int flags);

    std::span<std::byte> datagram(std::size_t i) { return datagrams_[i].bytes; }
    const sockaddr_in& source(std::size_t i) const { return sources_[datagrams_[i].message]; }

 private:
    struct Datagram {
        std::span<std::byte> bytes;
        std::size_t message;
    };
    struct alignas(cmsghdr) SegmentSize {
        std::array<std::byte, CMSG_SPACE(sizeof(int))> control;
    };

    void prepare(std::size_t message);
    void split(std::size_t message);

    Merging merging_;
    std::size_t received_ = 0;  // messages
    std::vector<Datagram> datagrams_;
    std::array<mmsghdr, batchSize> messages_{};
    std::array<SegmentSize, batchSize> segmentSizes_{};
    std::array<iovec, batchSize> vectors_{};
    std::array<sockaddr_in, batchSize> sources_{};
    std::vector<std::byte> buffers_;
};

}  // namespace vesk::bench
