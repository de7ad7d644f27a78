// Parses the kernel's tables of UDP sockets, /proc/PID/net/udp and udp6: one line for each socket
// that has a port. Called by kernel/kernel_reader; any thread.
//
//      sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout
//      inode ref pointer drops
//      11311: 0100007F:1194 00000000:0000 07 00000000:00033C00 00:00000000 00000000     0        0
//      3418658 2 000000002b9c5035 308
//
// (each of these is one line). Addresses are 32-bit words of the address in the host's byte order.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vesk::controller {

struct UdpSocket {
    std::string_view address;  ///< hex digits of the table; a view of the text
    std::uint16_t port = 0;
    std::uint64_t sendQueue = 0;     ///< bytes of buffer in use
    std::uint64_t receiveQueue = 0;  ///< bytes of buffer in use
    std::uint64_t inode = 0;
    std::uint64_t drops = 0;  ///< datagrams, since the socket was opened
};

/// The sockets of a table. Damaged lines are left out. The text must outlive the result.
std::vector<UdpSocket> parseUdpTable(std::string_view text);

/// A numeric address in the form of the tables; empty if the text is not one.
std::string tableAddress(const std::string& host);

}  // namespace vesk::controller
