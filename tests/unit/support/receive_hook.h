// Lets a unit test act in the middle of a receive call, at a moment that no timing can miss.
//
// For test programs that are linked with -Wl,--wrap=recvmsg (vesk_unit_receive_hook).
#pragma once

#include <functional>

namespace vesk {

/// Runs `action` once, in the calling thread's next recvmsg, before the kernel is asked.
void duringNextReceive(std::function<void()> action);

}  // namespace vesk
