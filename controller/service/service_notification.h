// Tells the service manager what the controller is at: one datagram to the socket that
// NOTIFY_SOCKET names. Without that variable nothing is sent. Called by service/supervisor.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace vesk::controller {

class ServiceNotification {
 public:
    /// `address` is that of NOTIFY_SOCKET: a path, or "@" and an abstract name.
    explicit ServiceNotification(std::optional<std::string> address);

    /// As the environment has it.
    static ServiceNotification fromEnvironment();

    /// `status` is shown to whoever asks how the service is doing.
    void ready(std::string_view status) const;
    void reloading() const;
    void stopping(std::string_view status) const;
    void status(std::string_view status) const;

 private:
    void send(std::string_view message) const;

    std::optional<std::string> address_;
    UniqueFd socket_;
};

}  // namespace vesk::controller
