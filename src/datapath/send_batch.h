// Datagrams that leave from one socket, collected so that few system calls send them. Each receive
// thread and each worker has a batch for each kind of socket that it sends from.
//
// Datagrams to one destination leave in the order in which they were added; those to different
// destinations may change places. Datagrams that follow each other to one destination with one
// marking, one source and one length are passed to the kernel as one message, which it cuts into
// datagrams (UDP_SEGMENT, udp(7)); several messages leave with one sendmmsg. Where the kernel
// refuses to cut, the datagrams are sent one by one, and the endpoint remembers the length. Each
// datagram has the result that it would have had alone.
#pragma once

#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "datapath/outgoing_message.h"
#include "datapath/send_outcome.h"
#include "datapath/send_run.h"
#include "net/endpoint.h"

namespace vesk {

class SendBatch {
 public:
    /// The number of datagrams that the batch has room for.
    static constexpr std::size_t capacity = 128;

    /// Told the result of `datagrams` datagrams that were added for the endpoint `account`.
    using Settle = std::function<void(VeskEndpointDescriptor& account, const SendResult& result,
                                      std::size_t datagrams)>;

    /// `flags` are those of the send calls. With `wholeOnly` a datagram of which the kernel took
    /// only a part has failed; otherwise one byte suffices.
    SendBatch(int flags, bool wholeOnly, Settle settle);
    SendBatch(const SendBatch&) = delete;
    SendBatch& operator=(const SendBatch&) = delete;

    bool empty() const { return datagrams_.empty(); }
    bool full() const { return datagrams_.size() == capacity; }

    /// The message in which the caller sets destination and control data before it adds a datagram
    /// to that route. Its contents are those of an earlier datagram.
    OutgoingMessage& nextRoute();
    /// Adds a datagram to the route set in `nextRoute`. It is not copied and must, like `account`,
    /// stay valid until it is sent. The batch must not be full.
    void add(std::span<std::uint8_t> datagram, VeskEndpointDescriptor& account);
    /// Sends all datagrams from the endpoint's write socket, settles each, and empties the batch.
    void sendFrom(VeskEndpointDescriptor& from);
    /// Settles all datagrams with this result, without sending them, and empties the batch.
    void settleAll(const SendResult& result);

 private:
    /// The datagrams to one destination.
    struct Group {
        std::uint8_t lastRoute;
        std::uint8_t datagrams;
    };

    std::uint8_t groupOf(const OutgoingMessage& message);
    void groupDatagrams();
    void collectRuns(std::size_t first, std::size_t segmentLimit);
    bool canBeCut(const SendRun& run) const;
    void appendMessage(const SendRun& run);
    std::size_t sendSome(std::size_t first, VeskEndpointDescriptor& from);
    int callSend(int socket);
    void settleSent(const SendRun& run, std::size_t bytes);
    void settleFailed(const SendRun& run, int error, VeskEndpointDescriptor& from);
    void sendOneByOne(const SendRun& run, int error, VeskEndpointDescriptor& from);
    void settle(std::size_t first, std::size_t count, const SendResult& result);
    SendResult resultOf(std::size_t bytes, std::size_t length) const;
    void clear();

    const int flags_;
    const bool wholeOnly_;
    const Settle settle_;
    /// One more than datagrams, for the next route. The first `routeCount_` are in use.
    std::vector<OutgoingMessage> routes_{capacity + 1};
    std::size_t routeCount_ = 0;
    std::vector<Group> groups_;
    /// The group of a destination, at its hash or at the next free place.
    std::array<std::uint8_t, 2 * capacity> groupByHash_;
    static constexpr std::uint8_t noGroup = 255;
    std::vector<HeldDatagram> datagrams_;
    /// The datagrams in the order of their groups, while they are sent.
    std::vector<HeldDatagram> grouped_;
    std::vector<iovec> elements_;
    /// Of one send call, of the same length.
    std::vector<SendRun> runs_;
    std::vector<mmsghdr> messages_;
    /// The first datagram of the last run in that call that is to be cut.
    std::optional<std::size_t> lastCut_;
};

}  // namespace vesk
