// The message channel: how every thread but one asks the poll thread to change the epoll set.
//
// A pair of local datagram sockets, so that records stay whole and the kernel puts those of
// different threads in order. One datagram carries one record or, where a worker arms several
// sockets at once, a row of them. A few hundred datagrams fit into the send buffer; then a sender
// waits.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>

#include "base/unique_fd.h"

namespace vesk {

// A record, in native byte order. Bytes 4 to 15 are laid out as a packed epoll_event.
//
//   0        4         8                    16
//   | op     | events  | data               |
//                        descriptor in the low half, high half zero
inline constexpr std::size_t pollRecordSize = 16;
namespace poll_record {
inline constexpr std::size_t opOffset = 0;
inline constexpr std::size_t eventsOffset = 4;
inline constexpr std::size_t dataOffset = 8;
}  // namespace poll_record

struct PollCtlMsg {
    /// EPOLL_CTL_ADD, EPOLL_CTL_DEL or EPOLL_CTL_MOD.
    std::uint32_t op = 0;
    /// EPOLLIN or EPOLLOUT; 0 for a deletion.
    std::uint32_t events = 0;
    int fd = -1;
};

using PollRecord = std::array<std::uint8_t, pollRecordSize>;

PollRecord encodePollCtlMsg(const PollCtlMsg& message);
/// None for anything shorter than a record.
std::optional<PollCtlMsg> decodePollCtlMsg(std::span<const std::uint8_t> record);

/// The most records that one datagram carries.
inline constexpr std::size_t maxPollRecords = 32;
/// Room for any datagram of the channel.
using PollDatagram = std::array<std::uint8_t, maxPollRecords * pollRecordSize>;

/// Calls `apply` for each record of a datagram, in order. False where something shorter than a
/// record is left over, or nothing was there at all.
bool forEachRecord(std::span<const std::uint8_t> datagram,
                   const std::function<void(const PollCtlMsg&)>& apply);

/// Makes the channel: an end that senders share and one, non-blocking, that the poll loop reads. 0,
/// or a negative errno after logging it.
int createPollSocks(UniqueFd& senderEnd, UniqueFd& serverPollSock);

/// Ask the poll loop to watch a descriptor, to arm it again, or to take it out of the set and close
/// it. Any thread; may wait for the poll loop, so hold no lock that the
/// poll thread or the workers need. 0, or -errno after logging it.
///
/// Once the loop has ended for good (see retirePollChannel) there is no set left to change: adding
/// and arming then do nothing and return 0. Deleting returns -EPIPE without logging it: there is
/// nobody left to close the descriptor but the caller.
int pollLoop_add_fd(int pollsock, int fd, int events);
int pollLoop_mod_fd(int pollsock, int fd, int events);
/// As pollLoop_mod_fd for each of them, with one system call; at most `maxPollRecords`.
int pollLoop_mod_fds(int pollsock, std::span<const int> fds, int events);
int pollLoop_del_fd(int pollsock, int fd);

/// To be called when the poll thread has ended: lets go every sender that waits for room, now and
/// later, and closes the descriptors whose deletion nobody has carried out.
void retirePollChannel(int serverPollSock);

}  // namespace vesk
