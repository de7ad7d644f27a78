#include "poll/poll_channel.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "log/error_text.h"
#include "log/log.h"
#include "net/socket_options.h"

namespace vesk {

namespace {

template <typename Value>
void put(PollRecord& record, std::size_t offset, Value value) {
    std::memcpy(record.data() + offset, &value, sizeof(value));
}

template <typename Value>
Value take(std::span<const std::uint8_t> record, std::size_t offset) {
    Value value{};
    std::memcpy(&value, record.data() + offset, sizeof(value));
    return value;
}

/// What became of a record: a wait for a loop that has ended is not a failure to report.
enum class Delivery { sent, loopEnded, failed };

struct SendResult {
    Delivery delivery;
    int error = 0;
};

SendResult sendDatagram(int pollsock, std::span<const std::uint8_t> datagram,
                        std::string_view routine) {
    const ssize_t sent = send(pollsock, datagram.data(), datagram.size(), 0);
    if (sent == static_cast<ssize_t>(datagram.size())) {
        return {Delivery::sent};
    }
    const int error = errno;
    if (sent == -1 && error == EPIPE) {
        return {Delivery::loopEnded};
    }
    // Kept: nothing between the routine's name and the text.
    logError(routine, "Error writing a control message to poll socket: bytes: ", sent,
             " Error: ", errorText(error));
    errno = error;
    return {Delivery::failed, -error};
}

SendResult sendRecord(int pollsock, const PollCtlMsg& message, std::string_view routine) {
    return sendDatagram(pollsock, encodePollCtlMsg(message), routine);
}

}  // namespace

PollRecord encodePollCtlMsg(const PollCtlMsg& message) {
    PollRecord record{};
    put(record, poll_record::opOffset, message.op);
    put(record, poll_record::eventsOffset, message.events);
    put(record, poll_record::dataOffset, std::uint64_t{static_cast<std::uint32_t>(message.fd)});
    return record;
}

std::optional<PollCtlMsg> decodePollCtlMsg(std::span<const std::uint8_t> record) {
    if (record.size() < pollRecordSize) {
        return std::nullopt;
    }
    const auto data = take<std::uint64_t>(record, poll_record::dataOffset);
    return PollCtlMsg{take<std::uint32_t>(record, poll_record::opOffset),
                      take<std::uint32_t>(record, poll_record::eventsOffset),
                      static_cast<int>(static_cast<std::uint32_t>(data))};
}

bool forEachRecord(std::span<const std::uint8_t> datagram,
                   const std::function<void(const PollCtlMsg&)>& apply) {
    bool whole = !datagram.empty();
    while (!datagram.empty() && whole) {
        const std::optional<PollCtlMsg> message = decodePollCtlMsg(datagram);
        whole = message.has_value();
        if (whole) {
            apply(*message);
            datagram = datagram.subspan(pollRecordSize);
        }
    }
    return whole;
}

int createPollSocks(UniqueFd& senderEnd, UniqueFd& serverPollSock) {
    std::array<int, 2> pair{-1, -1};
    if (socketpair(AF_UNIX, SOCK_DGRAM, 0, pair.data()) != 0) {
        const int error = errno;
        logError("Failed to create socketpair for poll socket: ", errorText(error));
        return -error;
    }
    UniqueFd first(pair[0]);
    UniqueFd second(pair[1]);
    const int result = setNonBlocking(second.get());
    if (result != 0) {
        logError("Failed to set serverPollSock to non-blocking mode");
        return result;
    }
    senderEnd = std::move(first);
    serverPollSock = std::move(second);
    return 0;
}

int pollLoop_add_fd(int pollsock, int fd, int events) {
    const SendResult result = sendRecord(
        pollsock, {EPOLL_CTL_ADD, static_cast<std::uint32_t>(events), fd}, "pollLoop_add_fd");
    if (result.delivery == Delivery::sent) {
        logDebug("Successfully sent fd ", fd, " (add, ", events == EPOLLIN ? "EPOLLIN" : "EPOLLOUT",
                 ") to poll loop");
    }
    return result.error;
}

int pollLoop_mod_fd(int pollsock, int fd, int events) {
    return pollLoop_mod_fds(pollsock, std::span(&fd, 1), events);
}

int pollLoop_mod_fds(int pollsock, std::span<const int> fds, int events) {
    assert(fds.size() <= maxPollRecords);
    PollDatagram datagram;
    std::size_t length = 0;
    for (const int fd : fds) {
        const PollRecord record =
            encodePollCtlMsg({EPOLL_CTL_MOD, static_cast<std::uint32_t>(events), fd});
        std::ranges::copy(record, datagram.begin() + static_cast<std::ptrdiff_t>(length));
        length += record.size();
    }
    return sendDatagram(pollsock, std::span(datagram).first(length), "pollLoop_mod_fd").error;
}

int pollLoop_del_fd(int pollsock, int fd) {
    const SendResult result = sendRecord(pollsock, {EPOLL_CTL_DEL, 0, fd}, "pollLoop_del_fd");
    if (result.delivery == Delivery::sent) {
        logDebug("Successfully sent fd ", fd, " (del) to poll loop");
    }
    return result.delivery == Delivery::loopEnded ? -EPIPE : result.error;
}

void retirePollChannel(int serverPollSock) {
    // From here on a send fails with EPIPE instead of waiting. A sender that waits already looks
    // again when a record leaves the queue, which the loop below sees to.
    shutdown(serverPollSock, SHUT_RD);
    PollDatagram datagram;
    ssize_t received = 0;
    while ((received = recv(serverPollSock, datagram.data(), datagram.size(), MSG_DONTWAIT)) > 0) {
        forEachRecord(std::span(datagram).first(static_cast<std::size_t>(received)),
                      [](const PollCtlMsg& message) {
                          if (message.op == EPOLL_CTL_DEL) {
                              close(message.fd);
                          }
                      });
    }
}

}  // namespace vesk
