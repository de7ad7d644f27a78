#include "datapath/receive_batch.h"

#include <sys/mman.h>

#include <cerrno>

#include "base/thread_control.h"
#include "datapath/merged_datagrams.h"
#include "datapath/system_calls.h"

namespace vesk {

ReceivedMessage::ReceivedMessage(std::uint8_t* slot, std::size_t length,
                                 const SocketAddress& sender, const ReceivedControl& control)
    : slot_(slot),
      length_(length),
      sender_(sender),
      control_(control),
      count_(countDatagrams(length, control.segmentSize)) {}

std::size_t ReceivedMessage::datagramLength(std::size_t index) const {
    return datagramExtent(length_, control_.segmentSize, index).length;
}

DatagramBuffer ReceivedMessage::datagram(std::size_t index) const {
    return DatagramBuffer(slot_ + datagramExtent(length_, control_.segmentSize, index).offset,
                          maxDatagramSize);
}

// The slots are not initialised, so that no page is used before a message needs it, except the
// first page of each, which every message needs.
ReceiveBatch::ReceiveBatch() : slots_(std::make_unique_for_overwrite<Slot[]>(capacity)) {
    oversized_.reserve(capacity);
    for (std::size_t i = 0; i < capacity; ++i) {
        slots_[i].front() = 0;
        elements_[i] = {slots_[i].data(), maxMessageSize};
        msghdr& header = headers_[i].msg_hdr;
        header.msg_name = &senders_[i].storage;
        header.msg_iov = &elements_[i];
        header.msg_iovlen = 1;
        header.msg_control = controls_[i].data();
        prepare(i);
    }
}

/// Resets what a receive call overwrites.
void ReceiveBatch::prepare(std::size_t slot) {
    msghdr& header = headers_[slot].msg_hdr;
    header.msg_namelen = SocketAddress::capacity;
    header.msg_controllen = receivedControlSpace;
    header.msg_flags = 0;
}

int ReceiveBatch::await(int socket) {
    const CancellationScope cancellable;
    const auto free = freeHeaders();
    return keep(recvmmsg(socket, free.data(), static_cast<unsigned int>(free.size()),
                         MSG_WAITFORONE, nullptr));
}

int ReceiveBatch::receiveNow(int socket) {
    return keep(receiveMessages(socket, freeHeaders(), MSG_DONTWAIT));
}

int ReceiveBatch::keep(int received) {
    before_ = used_;
    if (received < 0) {
        return -errno;
    }
    used_ += static_cast<std::size_t>(received);
    return received;
}

ReceivedMessage ReceiveBatch::message(std::size_t index, int family) {
    const std::size_t slot = before_ + index;
    const mmsghdr& received = headers_.at(slot);
    SocketAddress& sender = senders_[slot];
    sender.length = received.msg_hdr.msg_namelen;
    const ReceivedControl control =
        readControl(family, std::span(controls_[slot]).first(received.msg_hdr.msg_controllen));
    if (control.segmentSize == 0 && received.msg_len > maxDatagramSize) {
        oversized_.push_back(slot);
    }
    return {slots_[slot].data(), received.msg_len, sender, control};
}

/// Releases the pages behind the first datagram buffer of the slot.
void ReceiveBatch::releasePages(std::size_t slot) {
    constexpr std::uintptr_t pageSize = 4096;
    const auto begin = reinterpret_cast<std::uintptr_t>(slots_[slot].data()) + maxDatagramSize;
    const auto end = reinterpret_cast<std::uintptr_t>(slots_[slot].data()) + maxMessageSize;
    const std::uintptr_t firstPage = (begin + pageSize - 1) / pageSize * pageSize;
    // A failure only means that the pages stay in use.
    static_cast<void>(madvise(slots_[slot].data() + (firstPage - begin) + maxDatagramSize,
                              (end - firstPage) / pageSize * pageSize, MADV_DONTNEED));
}

void ReceiveBatch::clear() {
    for (const std::size_t slot : oversized_) {
        releasePages(slot);
    }
    oversized_.clear();
    for (std::size_t slot = 0; slot < used_; ++slot) {
        prepare(slot);
    }
    used_ = 0;
    before_ = 0;
}

}  // namespace vesk
