#include "datapath/send_batch.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "datapath/system_calls.h"

namespace vesk {

namespace {

/// The number of messages in one send call.
constexpr std::size_t maxMessages = 64;

/// Whether the kernel may have refused a message because it had to be cut: the route's network
/// takes no datagrams of this length whole (EINVAL, EMSGSIZE), or its device cannot cut (EIO).
bool mayRefuseCutting(int error) {
    return error == EIO || error == EINVAL || error == EMSGSIZE;
}

}  // namespace

SendBatch::SendBatch(int flags, bool wholeOnly, Settle settle)
    : flags_(flags), wholeOnly_(wholeOnly), settle_(std::move(settle)) {
    datagrams_.reserve(capacity);
    grouped_.resize(capacity);
    elements_.resize(capacity);
    groups_.reserve(capacity);
    runs_.reserve(maxMessages);
    messages_.reserve(maxMessages);
    groupByHash_.fill(noGroup);
}

OutgoingMessage& SendBatch::nextRoute() {
    return routes_[routeCount_];
}

void SendBatch::add(std::span<std::uint8_t> datagram, VeskEndpointDescriptor& account) {
    OutgoingMessage& next = nextRoute();
    const std::uint8_t index = groupOf(next);
    Group& group = groups_[index];
    if (group.lastRoute != routeCount_ && !routes_[group.lastRoute].hasRouteOf(next)) {
        group.lastRoute = static_cast<std::uint8_t>(routeCount_);
    }
    if (group.lastRoute == routeCount_) {
        ++routeCount_;
    }
    ++group.datagrams;
    datagrams_.push_back({&account, {datagram.data(), datagram.size()}, group.lastRoute, index});
}

/// The group of the message's destination, made with the next route if there is none.
std::uint8_t SendBatch::groupOf(const OutgoingMessage& message) {
    // Less than half of the places are ever taken, so the search ends.
    for (std::size_t place = message.destinationHash();; ++place) {
        std::uint8_t& index = groupByHash_.at(place % groupByHash_.size());
        if (index == noGroup) {
            index = static_cast<std::uint8_t>(groups_.size());
            groups_.push_back({static_cast<std::uint8_t>(routeCount_), 0});
            return index;
        }
        if (routes_[groups_[index].lastRoute].hasDestinationOf(message)) {
            return index;
        }
    }
}

void SendBatch::sendFrom(VeskEndpointDescriptor& from) {
    groupDatagrams();
    for (std::size_t next = 0; next < datagrams_.size();) {
        next += sendSome(next, from);
    }
    clear();
}

/// Puts the datagrams in the order of their groups, and otherwise leaves their order.
void SendBatch::groupDatagrams() {
    if (groups_.size() > 1) {
        std::array<std::size_t, capacity> next;
        std::size_t begin = 0;
        for (std::size_t i = 0; i < groups_.size(); ++i) {
            next[i] = begin;
            begin += groups_[i].datagrams;
        }
        grouped_.resize(datagrams_.size());
        for (const HeldDatagram& datagram : datagrams_) {
            grouped_[next[datagram.group]++] = datagram;
        }
        std::swap(datagrams_, grouped_);
    }
    std::ranges::transform(datagrams_, elements_.begin(), &HeldDatagram::bytes);
}

void SendBatch::settleAll(const SendResult& result) {
    settle(0, datagrams_.size(), result);
    clear();
}

/// Makes one send call, beginning with this datagram. Returns the number of datagrams settled.
std::size_t SendBatch::sendSome(std::size_t first, VeskEndpointDescriptor& from) {
    collectRuns(first, from.segmentLimit.load(std::memory_order_relaxed));
    const int sent = callSend(from.wrsockfd);
    if (sent < 1) {
        // The call stops at the first message that fails, and reports the error only if that is
        // the first one of the call.
        settleFailed(runs_.front(), errno, from);
        return runs_.front().count;
    }
    std::size_t settled = 0;
    for (std::size_t i = 0; i < static_cast<std::size_t>(sent); ++i) {
        settleSent(runs_[i], messages_[i].msg_len);
        settled += runs_[i].count;
    }
    return settled;
}

/// Divides the datagrams from this one on into the messages of the next send call.
void SendBatch::collectRuns(std::size_t first, std::size_t segmentLimit) {
    runs_.clear();
    messages_.clear();
    lastCut_.reset();
    while (first < datagrams_.size() && runs_.size() < maxMessages) {
        const SendRun run = longestRun(datagrams_, first, segmentLimit);
        if (run.count > 1) {
            if (!canBeCut(run)) {
                return;
            }
            lastCut_ = run.first;
        }
        appendMessage(run);
        first += run.count;
    }
}

/// Whether the run can be cut in the send call that is collected: two runs of one route have only
/// one room for the segment size.
bool SendBatch::canBeCut(const SendRun& run) const {
    return !lastCut_ || datagrams_[run.first].route != datagrams_[*lastCut_].route ||
           elements_[run.first].iov_len == elements_[*lastCut_].iov_len;
}

void SendBatch::appendMessage(const SendRun& run) {
    OutgoingMessage& route = routes_[datagrams_[run.first].route];
    iovec& element = elements_[run.first];
    mmsghdr& message = messages_.emplace_back();
    message.msg_hdr = run.count == 1
                          ? *route.header()
                          : route.segmentedHeader(static_cast<std::uint16_t>(element.iov_len));
    message.msg_hdr.msg_iov = &element;
    message.msg_hdr.msg_iovlen = run.count;
    runs_.push_back(run);
}

/// Sends the messages collected. The number of messages sent, or -1 with errno.
int SendBatch::callSend(int socket) {
    if (messages_.size() > 1) {
        return sendMessages(socket, messages_, flags_);
    }
    const ssize_t bytes = sendOneMessage(socket, messages_.front().msg_hdr, flags_);
    if (bytes == -1) {
        return -1;
    }
    messages_.front().msg_len = static_cast<unsigned int>(bytes);
    return 1;
}

/// Settles a run of which the kernel took this number of bytes.
void SendBatch::settleSent(const SendRun& run, std::size_t bytes) {
    if (bytes == run.bytes) {
        settle(run.first, run.count, {SendOutcome::sent, 0});
        return;
    }
    for (std::size_t i = run.first; i < run.first + run.count; ++i) {
        const std::size_t taken = std::min(bytes, elements_[i].iov_len);
        settle(i, 1, resultOf(taken, elements_[i].iov_len));
        bytes -= taken;
    }
}

void SendBatch::settleFailed(const SendRun& run, int error, VeskEndpointDescriptor& from) {
    if (run.count == 1) {
        settle(run.first, 1, {outcomeOfError(error), error});
    } else {
        sendOneByOne(run, error, from);
    }
}

/// Sends the datagrams of a run that the kernel refused as a whole. If it takes the first one
/// alone, it refused to cut datagrams of this length.
void SendBatch::sendOneByOne(const SendRun& run, int error, VeskEndpointDescriptor& from) {
    for (std::size_t i = run.first; i < run.first + run.count; ++i) {
        msghdr message = *routes_[datagrams_[i].route].header();
        message.msg_iov = &elements_[i];
        const SendResult result =
            sendMessage(message, from.wrsockfd, flags_, wholeOnly_ ? elements_[i].iov_len : 1);
        if (i == run.first && result.outcome == SendOutcome::sent && mayRefuseCutting(error)) {
            from.segmentLimit.store(
                error == EIO ? 0 : static_cast<std::uint16_t>(elements_[i].iov_len - 1),
                std::memory_order_relaxed);
        }
        settle(i, 1, result);
    }
}

SendResult SendBatch::resultOf(std::size_t bytes, std::size_t length) const {
    const bool enough = bytes >= (wholeOnly_ ? length : 1);
    return {enough ? SendOutcome::sent : SendOutcome::failed, errno};
}

/// Settles datagrams with one result, those of each account together.
void SendBatch::settle(std::size_t first, std::size_t count, const SendResult& result) {
    const std::size_t end = first + count;
    while (first < end) {
        VeskEndpointDescriptor* const account = datagrams_[first].account;
        std::size_t next = first + 1;
        while (next < end && datagrams_[next].account == account) {
            ++next;
        }
        settle_(*account, result, next - first);
        first = next;
    }
}

void SendBatch::clear() {
    datagrams_.clear();
    groups_.clear();
    groupByHash_.fill(noGroup);
    routeCount_ = 0;
}

}  // namespace vesk
