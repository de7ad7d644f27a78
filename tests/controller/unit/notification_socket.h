// Plays the service manager at its notification socket, for the unit tests.
#pragma once

#include <string>

#include "base/unique_fd.h"

namespace vesk::controller {

class NotificationSocket {
 public:
    struct Message {
        std::string text;
        UniqueFd descriptor;
    };

    /// `name`: a path, or "@" and an abstract name.
    explicit NotificationSocket(std::string name);

    const std::string& name() const { return name_; }

    /// The next message; empty if there is none.
    Message receive() const;

 private:
    std::string name_;
    UniqueFd socket_;
};

}  // namespace vesk::controller
