// Receives signals through a descriptor, so that poll(2) can wait for them. Called by
// service/supervisor.
#pragma once

#include <initializer_list>
#include <optional>

#include "base/unique_fd.h"

namespace vesk::controller {

class SignalSource {
 public:
    /// Blocks these signals in the calling thread and in threads that it starts later. Throws
    /// std::system_error.
    explicit SignalSource(std::initializer_list<int> signals);

    int descriptor() const { return source_.get(); }

    /// A signal that has arrived, if any.
    std::optional<int> next() const;

 private:
    UniqueFd source_;
};

}  // namespace vesk::controller
