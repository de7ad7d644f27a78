// Warns before the ephemeral ports are used up. Called by kernel/kernel_watch, one thread at a
// time.
#pragma once

#include <optional>
#include <string>

#include "kernel/kernel_figures.h"

namespace vesk::controller {

class PortWarning {
 public:
    /// The warning if no more than a tenth of the ports is left. The next warning comes only after
    /// a fifth has been free again, so that a fluctuating figure does not fill the log.
    std::optional<std::string> check(const Room& ports);

 private:
    bool warned_ = false;
};

}  // namespace vesk::controller
