// The message channel: how every thread but one asks the poll thread to change the epoll set.
//
// A pair of local datagram sockets, so that records stay whole and the kernel puts those of
// different threads in order. One datagram carries one record or, where several sockets are armed
// or deleted at once, a row of them. A few hundred datagrams fit into the send buffer; then a
// sender waits.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string_view>

#include "base/unique_fd.h"

namespace vesk {

// A record, in native byte order. Bytes 4 to 15 are laid out as a packed epoll_event.
//
//   0        4         8                    16
//   | op     | events  | data               |
//                        descriptor in the low half, high half zero
//
// A row begins with a header of a record's size. Its op is no epoll operation, so that no record
// can be taken for a header:
//
//   0        4         8                    16        32
//   | row op | 0       | number of records  | record  | record  | ...
//
// A datagram that is no row, or whose length is not that of its number of records, is one record:
// its first 16 bytes. What follows them is ignored.
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

/// The op of a row's header: "Rows" as bytes of a little-endian number.
inline constexpr std::uint32_t pollRowOp = 0x73776f52;
/// The most records that one row carries.
inline constexpr std::size_t maxPollRecords = 32;
/// Room for the longest row.
using PollDatagram = std::array<std::uint8_t, (1 + maxPollRecords) * pollRecordSize>;

/// Calls `apply` for each record of a datagram, in order. False where the datagram is shorter than
/// a record.
bool forEachRecord(std::span<const std::uint8_t> datagram,
                   const std::function<void(const PollCtlMsg&)>& apply);

/// Makes the channel: an end that senders share and one, non-blocking, that the poll loop reads. 0,
/// or a negative errno after logging it.
int createPollSocks(UniqueFd& senderEnd, UniqueFd& serverPollSock);

/// Ask the poll loop to watch a descriptor, to arm it again, or to take it out of the set and close
/// it. Any thread; may wait for the poll loop, so hold no lock that the poll thread or the workers
/// need. 0, or -errno after logging it.
///
/// Once the loop has ended (see retirePollChannel) all three return -EPIPE. Arming and deleting
/// then log nothing: at shut-down that is no failure, and whoever deletes closes the descriptor
/// itself.
int pollLoop_add_fd(int pollsock, int fd, int events);
int pollLoop_mod_fd(int pollsock, int fd, int events);
int pollLoop_del_fd(int pollsock, int fd);

/// Logs that a request of `routine` could not be sent. Leaves `error` in errno.
void logFailedPollRequest(std::string_view routine, int error);

/// As pollLoop_mod_fd and pollLoop_del_fd for each of 1 to `maxPollRecords` descriptors, with one
/// system call. 0, or -errno without logging it, also for a loop that has ended: the caller then
/// asks for one descriptor after another, each with an outcome and a log line of its own.
int pollLoop_mod_fds(int pollsock, std::span<const int> fds, int events);
int pollLoop_del_fds(int pollsock, std::span<const int> fds);

/// To be called when the poll thread has ended: lets go every sender that waits for room, now and
/// later, and closes the descriptors whose deletion nobody has carried out.
void retirePollChannel(int serverPollSock);

}  // namespace vesk
