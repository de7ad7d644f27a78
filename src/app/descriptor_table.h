// Makes the process's descriptor table as large as it can become. Called once at start-up, on the
// main thread, before any other thread starts.
#pragma once

namespace vesk {

/// The largest table reserved, in descriptors: two for each of about 65,000 flows with a socket.
/// The kernel allocates eight bytes for each.
inline constexpr int maxReservedDescriptors = 1 << 17;

/// Reserves the table up to the soft limit on descriptors (RLIMIT_NOFILE), at most
/// maxReservedDescriptors. No descriptor stays open; a failure is ignored.
///
/// The kernel enlarges the table in the call that needs a higher number. If several threads share
/// the table, that call waits until all processors have passed through a quiescent state
/// (synchronize_rcu), which takes 10 ms, and up to a second on a busy host. A receive thread that
/// opens a flow's socket would read no datagram of any flow meanwhile.
void reserveDescriptorTable();

}  // namespace vesk
