// Lets a test run code around the datapath's receive calls, independent of timing.
//
// For test programs that are linked with -Wl,--wrap=syscall (vesk_unit_receive_hook).
#pragma once

#include <sys/socket.h>

#include <array>
#include <functional>
#include <span>

namespace vesk {

/// A receive call that does not wait (recvmmsg), as the datapath passes it to the kernel.
class ReceiveCall {
 public:
    /// The arguments of syscall after the number.
    using Arguments = std::array<long, 5>;

    explicit ReceiveCall(const Arguments& arguments) : arguments_(arguments) {}

    /// The messages that the call has room for.
    std::span<mmsghdr> messages() const;
    /// Makes the call. Returns the number of messages, or -1 with errno.
    long make() const;
    /// The same, with room for one message.
    long makeForOne() const;

 private:
    Arguments arguments_;
};

/// What takes the place of a receive call. Its result and errno are the call's.
using ReceiveHook = std::function<long(const ReceiveCall& call)>;

/// Replaces the calling thread's receive calls, until it is called again. An empty hook ends that.
void hookReceives(ReceiveHook hook);

/// Runs `action` once, in the calling thread's next receive call, before the system call.
void duringNextReceive(std::function<void()> action);

}  // namespace vesk
