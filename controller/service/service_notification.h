// Reports the controller's state to the service manager, with datagrams to the socket in
// NOTIFY_SOCKET. Without that variable nothing is sent. Called by service/.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace vesk::controller {

class ServiceNotification {
 public:
    /// `address` is the value of NOTIFY_SOCKET: a path, or "@" and an abstract name.
    /// `watchdogInterval` is the value of WATCHDOG_USEC.
    explicit ServiceNotification(
        std::optional<std::string> address,
        std::optional<std::chrono::microseconds> watchdogInterval = std::nullopt);

    /// With the values of the environment.
    static ServiceNotification fromEnvironment();

    /// `status` is the text that the service manager shows for the service.
    void ready(std::string_view status) const;
    void reloading() const;
    void stopping(std::string_view status) const;
    void status(std::string_view status) const;

    /// The time within which alive() must be called again; none if the service manager does not
    /// watch this process.
    std::optional<std::chrono::microseconds> watchdogInterval() const { return watchdogInterval_; }
    void alive() const;

    /// Puts a copy of the descriptor into the service manager's store, from which the next process
    /// of the service gets it. `name` contains no ':'.
    void store(const std::string& name, int descriptor) const;
    /// Closes the copies of that name.
    void removeStored(const std::string& name) const;

 private:
    void send(std::string message, int descriptor = -1) const;

    std::optional<std::string> address_;
    std::optional<std::chrono::microseconds> watchdogInterval_;
    UniqueFd socket_;
};

}  // namespace vesk::controller
