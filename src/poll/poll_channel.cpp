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

#include "base/nonblocking.h"
#include "log/error_text.h"
#include "log/log.h"

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

/// The number of records in a row; none if the datagram is not a row.
std::optional<std::size_t> recordsInRow(std::span<const std::uint8_t> datagram) {
    if (datagram.size() < pollRecordSize ||
        take<std::uint32_t>(datagram, poll_record::opOffset) != pollRowOp) {
        return std::nullopt;
    }
    const auto count = take<std::uint64_t>(datagram, poll_record::dataOffset);
    if (count == 0 || count > maxPollRecords || datagram.size() != (1 + count) * pollRecordSize) {
        return std::nullopt;
    }
    return count;
}

/// 0 or -errno. A local datagram is sent whole or not at all.
int sendRecord(int pollsock, const PollCtlMsg& message) {
    const PollRecord record = encodePollCtlMsg(message);
    return send(pollsock, record.data(), record.size(), 0) == -1 ? -errno : 0;
}

/// As above, but logs a failure, unless the cause is that the loop has ended.
int sendToLiveLoop(int pollsock, const PollCtlMsg& message, std::string_view routine) {
    const int result = sendRecord(pollsock, message);
    if (result != 0 && result != -EPIPE) {
        logFailedPollRequest(routine, -result);
    }
    return result;
}

/// Sends a row with one record for each descriptor; the records differ only in the descriptor. 0 or
/// -errno.
int sendRow(int pollsock, PollCtlMsg message, std::span<const int> fds) {
    assert(!fds.empty() && fds.size() <= maxPollRecords);
    PollDatagram datagram;
    PollRecord header{};
    put(header, poll_record::opOffset, pollRowOp);
    put(header, poll_record::dataOffset, std::uint64_t{fds.size()});
    auto* end = std::ranges::copy(header, datagram.begin()).out;
    for (const int fd : fds) {
        message.fd = fd;
        end = std::ranges::copy(encodePollCtlMsg(message), end).out;
    }
    const auto length = static_cast<std::size_t>(end - datagram.begin());
    return send(pollsock, datagram.data(), length, 0) == -1 ? -errno : 0;
}

void logDeletionSent(int fd) {
    logDebug("Successfully sent fd ", fd, " (del) to poll loop");
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
    const std::optional<std::size_t> rowLength = recordsInRow(datagram);
    if (rowLength) {
        datagram = datagram.subspan(pollRecordSize);
    }
    const std::size_t count = rowLength.value_or(1);
    for (std::size_t i = 0; i < count; ++i) {
        const auto message = decodePollCtlMsg(datagram);
        if (!message) {
            return false;
        }
        apply(*message);
        datagram = datagram.subspan(pollRecordSize);
    }
    return true;
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

void logFailedPollRequest(std::string_view routine, int error) {
    // Kept: nothing between the routine's name and the text.
    logError(routine,
             "Error writing a control message to poll socket: bytes: -1 Error: ", errorText(error));
    errno = error;
}

int pollLoop_add_fd(int pollsock, int fd, int events) {
    const int result =
        sendRecord(pollsock, {EPOLL_CTL_ADD, static_cast<std::uint32_t>(events), fd});
    if (result == 0) {
        logDebug("Successfully sent fd ", fd, " (add, ", events == EPOLLIN ? "EPOLLIN" : "EPOLLOUT",
                 ") to poll loop");
    } else {
        logFailedPollRequest("pollLoop_add_fd", -result);
    }
    return result;
}

int pollLoop_mod_fd(int pollsock, int fd, int events) {
    return sendToLiveLoop(pollsock, {EPOLL_CTL_MOD, static_cast<std::uint32_t>(events), fd},
                          "pollLoop_mod_fd");
}

int pollLoop_del_fd(int pollsock, int fd) {
    const int result = sendToLiveLoop(pollsock, {EPOLL_CTL_DEL, 0, fd}, "pollLoop_del_fd");
    if (result == 0) {
        logDeletionSent(fd);
    }
    return result;
}

int pollLoop_mod_fds(int pollsock, std::span<const int> fds, int events) {
    return sendRow(pollsock, {EPOLL_CTL_MOD, static_cast<std::uint32_t>(events)}, fds);
}

int pollLoop_del_fds(int pollsock, std::span<const int> fds) {
    const int result = sendRow(pollsock, {EPOLL_CTL_DEL, 0}, fds);
    if (result == 0) {
        std::ranges::for_each(fds, logDeletionSent);
    }
    return result;
}

void retirePollChannel(int serverPollSock) {
    // From here on a send fails with EPIPE instead of waiting. A sender that already waits checks
    // again when a datagram leaves the queue, which the loop below causes.
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
