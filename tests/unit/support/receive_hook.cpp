#include "support/receive_hook.h"

#include <sys/socket.h>

#include <utility>

namespace {

thread_local std::function<void()> pendingAction;

void runPendingAction() {
    if (const auto action = std::exchange(pendingAction, nullptr)) {
        action();
    }
}

}  // namespace

// With --wrap the linker resolves recvmsg to __wrap_recvmsg and __real_recvmsg to the C library's
// recvmsg.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
ssize_t __real_recvmsg(int socket, msghdr* message, int flags);

// Without objects of its own: a cancellation unwinds this frame, and the address sanitizer would
// take the place of such an object for one still in use.
ssize_t __wrap_recvmsg(int socket, msghdr* message, int flags) {
    runPendingAction();
    return __real_recvmsg(socket, message, flags);
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace vesk {

void duringNextReceive(std::function<void()> action) {
    pendingAction = std::move(action);
}

}  // namespace vesk
