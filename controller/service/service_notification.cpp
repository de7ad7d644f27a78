#include "service/service_notification.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <utility>

#include "service/environment.h"

namespace vesk::controller {

namespace {

constexpr timeval longestWait{0, 100000};

std::string monotonicMicroseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::to_string(now.tv_sec * 1000000 + now.tv_nsec / 1000);
}

/// Child processes inherit the variables; WATCHDOG_PID says which process is meant.
std::optional<std::chrono::microseconds> askedInterval() {
    const std::optional<std::int64_t> interval = numberIn("WATCHDOG_USEC");
    if (!interval || (variable("WATCHDOG_PID") && numberIn("WATCHDOG_PID") != getpid())) {
        return std::nullopt;
    }
    return std::chrono::microseconds(*interval);
}

}  // namespace

ServiceNotification::ServiceNotification(std::optional<std::string> address,
                                         std::optional<std::chrono::microseconds> watchdogInterval)
    : address_(std::move(address)), watchdogInterval_(watchdogInterval) {
    constexpr std::size_t room = sizeof(sockaddr_un::sun_path);
    if (address_ && !address_->empty() && address_->size() < room) {
        socket_.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        static_cast<void>(
            setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &longestWait, sizeof longestWait));
    }
}

ServiceNotification ServiceNotification::fromEnvironment() {
    return ServiceNotification(variable("NOTIFY_SOCKET"), askedInterval());
}

void ServiceNotification::alive() const {
    send("WATCHDOG=1");
}

void ServiceNotification::ready(std::string_view status) const {
    send("READY=1\nSTATUS=" + std::string(status));
}

void ServiceNotification::reloading() const {
    send("RELOADING=1\nMONOTONIC_USEC=" + monotonicMicroseconds());
}

void ServiceNotification::stopping(std::string_view status) const {
    send("STOPPING=1\nSTATUS=" + std::string(status));
}

void ServiceNotification::status(std::string_view status) const {
    send("STATUS=" + std::string(status));
}

void ServiceNotification::store(const std::string& name, int descriptor) const {
    send("FDSTORE=1\nFDNAME=" + name, descriptor);
}

void ServiceNotification::removeStored(const std::string& name) const {
    send("FDSTOREREMOVE=1\nFDNAME=" + name);
}

/// Forwarding continues even if the service manager does not listen. It may be late for a moment,
/// and a message about the store must not get lost then.
void ServiceNotification::send(std::string message, int descriptor) const {
    if (!socket_) {
        return;
    }
    sockaddr_un target{};
    target.sun_family = AF_UNIX;
    std::ranges::copy(*address_, target.sun_path);
    if (target.sun_path[0] == '@') {
        target.sun_path[0] = '\0';
    }
    iovec bytes{message.data(), message.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof descriptor)> control{};
    msghdr whole{};
    whole.msg_name = &target;
    whole.msg_namelen = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address_->size());
    whole.msg_iov = &bytes;
    whole.msg_iovlen = 1;
    if (descriptor != -1) {
        whole.msg_control = control.data();
        whole.msg_controllen = control.size();
        cmsghdr* const rights = CMSG_FIRSTHDR(&whole);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof descriptor);
        std::memcpy(CMSG_DATA(rights), &descriptor, sizeof descriptor);
    }
    const int wait = message.starts_with("FDSTORE") ? 0 : MSG_DONTWAIT;
    static_cast<void>(sendmsg(socket_.get(), &whole, MSG_NOSIGNAL | wait));
}

}  // namespace vesk::controller
