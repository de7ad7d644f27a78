// The receive buffers of a thread, and the receive calls that fill several of them at once. Each
// receive thread and each worker has one batch and reuses it, so the buffers stay in the
// processor's cache and no flow needs a buffer of its own.
#pragma once

#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "base/socket_address.h"
#include "datapath/received_control.h"
#include "datapath/wire/framing.h"

namespace vesk {

/// One message of a receive call: one datagram, or several that the kernel merged.
class ReceivedMessage {
 public:
    ReceivedMessage(std::uint8_t* slot, std::size_t length, const SocketAddress& sender,
                    const ReceivedControl& control);

    const SocketAddress& sender() const { return sender_; }
    const LocalAddress& localDestination() const { return control_.localDestination; }

    /// 0 for an empty message.
    std::size_t datagramCount() const { return count_; }
    /// The length of a datagram in bytes, and a whole datagram buffer that begins with it. What
    /// follows the datagram in the buffer belongs to the next one and must not be changed.
    std::size_t datagramLength(std::size_t index) const;
    DatagramBuffer datagram(std::size_t index) const;

 private:
    std::uint8_t* const slot_;
    const std::size_t length_;
    const SocketAddress& sender_;
    const ReceivedControl control_;
    const std::size_t count_;
};

class ReceiveBatch {
 public:
    /// The number of messages that the batch has room for.
    static constexpr std::size_t capacity = 64;

    ReceiveBatch();
    ReceiveBatch(const ReceiveBatch&) = delete;
    ReceiveBatch& operator=(const ReceiveBatch&) = delete;

    /// Waits for a datagram, then receives as many as are there, up to the room left. Returns their
    /// number, or -errno. A cancellation point.
    int await(int socket);
    /// Receives as many datagrams as are there, up to the room left, without waiting. Returns their
    /// number, or -errno: -EAGAIN if there is none.
    int receiveNow(int socket);

    /// The messages that the batch still has room for. Not 0 when a receive call is made.
    std::size_t room() const { return capacity - used_; }
    /// A message of the last receive call, by its index in that call. Valid until `clear`.
    ReceivedMessage message(std::size_t index, int family);
    /// Forgets all messages.
    void clear();

 private:
    /// The largest message: several merged datagrams are at most as long as the longest datagram.
    static constexpr std::size_t maxMessageSize = 65536;
    /// Room for a message, and for a whole datagram buffer that begins with the message's last
    /// byte. Its pages are used only as far as messages are long, and those that a datagram over
    /// `maxDatagramSize` has used are released: no valid datagram needs them. The size is not a
    /// multiple of a large power of two; otherwise the beginnings of all slots would compete for
    /// the same few cache lines.
    struct Slot : std::array<std::uint8_t, maxMessageSize + maxDatagramSize> {};

    std::span<mmsghdr> freeHeaders() { return std::span(headers_).subspan(used_); }
    int keep(int received);
    void prepare(std::size_t slot);
    void releasePages(std::size_t slot);

    std::array<mmsghdr, capacity> headers_{};
    std::array<iovec, capacity> elements_{};
    std::array<SocketAddress, capacity> senders_;
    struct alignas(cmsghdr) Control : std::array<std::uint8_t, receivedControlSpace> {};
    std::array<Control, capacity> controls_;
    std::unique_ptr<Slot[]> slots_;
    /// The slots whose pages `clear` releases.
    std::vector<std::size_t> oversized_;
    /// Messages received since `clear`, and of those the ones before the last receive call.
    std::size_t used_ = 0;
    std::size_t before_ = 0;
};

}  // namespace vesk
