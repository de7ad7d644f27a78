// Says that the ephemeral ports run out before they have. Called by kernel/kernel_watch, one thread
// at a time.
#pragma once

#include <optional>
#include <string>

#include "kernel/kernel_figures.h"

namespace vesk::controller {

class PortWarning {
 public:
    /// The warning, when no more than a tenth of the ports is left; then none before a fifth has
    /// been free again, so that a figure that moves to and fro does not fill the log.
    std::optional<std::string> check(const Room& ports);

 private:
    bool warned_ = false;
};

}  // namespace vesk::controller
