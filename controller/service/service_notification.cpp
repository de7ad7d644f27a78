#include "service/service_notification.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <utility>

namespace vesk::controller {

namespace {

std::string monotonicMicroseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::to_string(now.tv_sec * 1000000 + now.tv_nsec / 1000);
}

std::optional<std::string> variable(const char* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no thread changes the environment.
    const char* const value = std::getenv(name);
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

/// None if the text is not a positive number.
std::optional<std::int64_t> number(const std::optional<std::string>& text) {
    std::int64_t value = 0;
    if (!text) {
        return std::nullopt;
    }
    const char* const end = text->data() + text->size();
    const auto [stopped, error] = std::from_chars(text->data(), end, value);
    return error == std::errc() && stopped == end && value > 0 ? std::optional(value)
                                                               : std::nullopt;
}

/// Child processes inherit the variables; WATCHDOG_PID says which process is meant.
std::optional<std::chrono::microseconds> askedInterval() {
    const std::optional<std::string> process = variable("WATCHDOG_PID");
    const std::optional<std::int64_t> interval = number(variable("WATCHDOG_USEC"));
    if (!interval || (process && number(process) != getpid())) {
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

void ServiceNotification::send(std::string_view message) const {
    if (!socket_) {
        return;
    }
    sockaddr_un target{};
    target.sun_family = AF_UNIX;
    std::ranges::copy(*address_, target.sun_path);
    if (target.sun_path[0] == '@') {
        target.sun_path[0] = '\0';
    }
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address_->size());
    // Forwarding continues even if the service manager does not listen.
    static_cast<void>(sendto(socket_.get(), message.data(), message.size(),
                             MSG_NOSIGNAL | MSG_DONTWAIT,
                             reinterpret_cast<const sockaddr*>(&target), length));
}

}  // namespace vesk::controller
