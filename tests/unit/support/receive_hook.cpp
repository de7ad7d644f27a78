#include "support/receive_hook.h"

#include <sys/syscall.h>

#include <cstdarg>
#include <cstddef>
#include <utility>

namespace {

thread_local vesk::ReceiveHook currentHook;

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's names
// With --wrap the linker resolves syscall to __wrap_syscall and __real_syscall to the C library's
// syscall.
extern "C" {
long __real_syscall(long number, ...);

long __wrap_syscall(long number, ...) {
    vesk::ReceiveCall::Arguments arguments{};
    va_list list;
    va_start(list, number);
    for (long& argument : arguments) {
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): a false alarm in C++
        argument = va_arg(list, long);
    }
    va_end(list);
    if (number == SYS_recvmmsg && currentHook) {
        // The hook may replace itself.
        const vesk::ReceiveHook hook = currentHook;
        return hook(vesk::ReceiveCall(arguments));
    }
    return __real_syscall(number, arguments[0], arguments[1], arguments[2], arguments[3],
                          arguments[4]);
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace vesk {

std::span<mmsghdr> ReceiveCall::messages() const {
    // The kernel takes an address and a count.
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    return {reinterpret_cast<mmsghdr*>(arguments_[1]), static_cast<std::size_t>(arguments_[2])};
}

long ReceiveCall::make() const {
    return __real_syscall(SYS_recvmmsg, arguments_[0], arguments_[1], arguments_[2], arguments_[3],
                          arguments_[4]);
}

long ReceiveCall::makeForOne() const {
    ReceiveCall one = *this;
    one.arguments_[2] = 1;
    return one.make();
}

void hookReceives(ReceiveHook hook) {
    currentHook = std::move(hook);
}

void duringNextReceive(std::function<void()> action) {
    hookReceives([action = std::move(action)](const ReceiveCall& call) {
        hookReceives(nullptr);
        action();
        return call.make();
    });
}

}  // namespace vesk
