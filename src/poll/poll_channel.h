// The message channel, by which all other threads ask the poll thread to change the epoll set.
//
// It is a pair of local datagram sockets, so records stay whole, and the kernel orders the
// records of different threads. A datagram contains one record or, if several sockets are armed or
// deleted together, a row of records. The send buffer has room for a few hundred datagrams; if it
// is full, a sender waits.
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

// A record, in native byte order. Bytes 4 to 15 have the layout of a packed epoll_event.
//
//   0        4         8                    16
//   | op     | events  | data               |
//                        descriptor in the low half, high half zero
//
// A row begins with a header as long as a record. The header's op is not an epoll operation, so a
// record is never mistaken for a header:
//
//   0        4         8                    16        32
//   | row op | 0       | number of records  | record  | record  | ...
//
// A datagram that is not a row, or whose length does not match its number of records, is read as
// one record: its first 16 bytes. The rest is ignored.
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
/// None if the input is shorter than a record.
std::optional<PollCtlMsg> decodePollCtlMsg(std::span<const std::uint8_t> record);

/// The op of a row's header: the bytes of "Rows" as a little-endian number.
inline constexpr std::uint32_t pollRowOp = 0x73776f52;
/// The largest number of records in a row.
inline constexpr std::size_t maxPollRecords = 32;
/// Room for the longest row.
using PollDatagram = std::array<std::uint8_t, (1 + maxPollRecords) * pollRecordSize>;

/// Calls `apply` for each record of a datagram, in order. False if the datagram is shorter than a
/// record.
bool forEachRecord(std::span<const std::uint8_t> datagram,
                   const std::function<void(const PollCtlMsg&)>& apply);

/// Makes the channel: an end that senders share, and a non-blocking end that the poll loop reads.
/// 0, or -errno after logging.
int createPollSocks(UniqueFd& senderEnd, UniqueFd& serverPollSock);

/// Asks the poll loop to watch a descriptor, to arm it again, or to remove it from the set and
/// close it. `events` is EPOLLIN or EPOLLOUT. Any thread. May wait for the poll loop, so hold no
/// lock that the poll thread or the workers need. 0, or -errno after logging.
///
/// Once the loop has ended (see retirePollChannel) all three return -EPIPE. Arming and deleting
/// then log nothing, since this is normal at shut-down; a caller that deletes closes the descriptor
/// itself.
int pollLoop_add_fd(int pollsock, int fd, int events);
int pollLoop_mod_fd(int pollsock, int fd, int events);
int pollLoop_del_fd(int pollsock, int fd);

/// Logs that a request of `routine` could not be sent. `error` is a positive errno, and errno is
/// set to it.
void logFailedPollRequest(std::string_view routine, int error);

/// As pollLoop_mod_fd and pollLoop_del_fd, for 1 to `maxPollRecords` descriptors with one system
/// call. 0, or -errno without logging. If the call fails, the caller asks for each descriptor
/// alone, so that each has its own result and log line.
int pollLoop_mod_fds(int pollsock, std::span<const int> fds, int events);
int pollLoop_del_fds(int pollsock, std::span<const int> fds);

/// To be called when the poll thread has ended. Requests that wait for room, and all later ones,
/// fail from now on. Closes the descriptors whose deletion is still queued.
void retirePollChannel(int serverPollSock);

}  // namespace vesk
