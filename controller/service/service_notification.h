// Tells the service manager what the controller is at: one datagram to the socket that
// NOTIFY_SOCKET names. Without that variable nothing is sent. Called by service/supervisor.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace vesk::controller {

class ServiceNotification {
 public:
    /// `address` is that of NOTIFY_SOCKET: a path, or "@" and an abstract name. `watchdogInterval`
    /// is that of WATCHDOG_USEC.
    explicit ServiceNotification(
        std::optional<std::string> address,
        std::optional<std::chrono::microseconds> watchdogInterval = std::nullopt);

    /// As the environment has it.
    static ServiceNotification fromEnvironment();

    /// `status` is shown to whoever asks how the service is doing.
    void ready(std::string_view status) const;
    void reloading() const;
    void stopping(std::string_view status) const;
    void status(std::string_view status) const;

    /// Within which time the service manager wants to hear alive() again; none where it does not
    /// watch this process.
    std::optional<std::chrono::microseconds> watchdogInterval() const { return watchdogInterval_; }
    void alive() const;

 private:
    void send(std::string_view message) const;

    std::optional<std::string> address_;
    std::optional<std::chrono::microseconds> watchdogInterval_;
    UniqueFd socket_;
};

}  // namespace vesk::controller
