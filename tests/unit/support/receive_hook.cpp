#include "support/receive_hook.h"

#include <sys/socket.h>

#include <utility>

namespace {

thread_local std::function<void()> pendingAction;

}  // namespace

// The linker gives these two names to the callers' function and to the C library's.
extern "C" {
ssize_t __real_recvmsg(int socket, msghdr* message, int flags);

ssize_t __wrap_recvmsg(int socket, msghdr* message, int flags) {
    if (const auto action = std::exchange(pendingAction, nullptr)) {
        action();
    }
    return __real_recvmsg(socket, message, flags);
}
}

namespace vesk {

void duringNextReceive(std::function<void()> action) {
    pendingAction = std::move(action);
}

}  // namespace vesk
