// Lets a unit test run code in the middle of a receive call, independent of timing.
//
// For test programs that are linked with -Wl,--wrap=recvmsg (vesk_unit_receive_hook).
#pragma once

#include <functional>

namespace vesk {

/// Runs `action` once, in the calling thread's next recvmsg(), before the system call.
void duringNextReceive(std::function<void()> action);

}  // namespace vesk
