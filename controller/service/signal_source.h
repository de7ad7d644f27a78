// Signals as something to poll for, so that they are handled where everything else is. Called by
// service/supervisor.
#pragma once

#include <initializer_list>
#include <optional>

#include "base/unique_fd.h"

namespace vesk::controller {

class SignalSource {
 public:
    /// Blocks these signals in the calling thread, and in those that it starts from now on. Throws
    /// std::system_error.
    explicit SignalSource(std::initializer_list<int> signals);

    int descriptor() const { return source_.get(); }

    /// A signal that has arrived, if any.
    std::optional<int> next() const;

 private:
    UniqueFd source_;
};

}  // namespace vesk::controller
