#include "refused_messages.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace {

int refusal = 0;

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
// With --wrap the linker resolves sendmmsg to __wrap_sendmmsg and __real_sendmmsg to the C
// library's sendmmsg.
extern "C" {
int __real_sendmmsg(int socket, mmsghdr* messages, unsigned count, int flags);

int __wrap_sendmmsg(int socket, mmsghdr* messages, unsigned count, int flags) {
    if (refusal == 0) {
        return __real_sendmmsg(socket, messages, count, flags);
    }
    const auto* const merged = std::find_if(messages, messages + count, [](const mmsghdr& message) {
        return message.msg_hdr.msg_iovlen > 1;
    });
    if (merged == messages) {
        errno = refusal;
        return -1;
    }
    return __real_sendmmsg(socket, messages, static_cast<unsigned>(merged - messages), flags);
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace vesk::bench {

void refuseMergedMessages(int error) {
    refusal = error;
}

}  // namespace vesk::bench
