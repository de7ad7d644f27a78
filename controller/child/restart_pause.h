// How long to wait before a forwarder that ended by itself is started again, or before another
// failed attempt is repeated: longer after each failure in a row, so that repeated failures do not
// keep the machine busy. Called by service/instance.
#pragma once

#include <chrono>

namespace vesk::controller {

class RestartPause {
 public:
    RestartPause(std::chrono::milliseconds first, std::chrono::milliseconds greatest);

    /// The pause after a forwarder that ran for the time `lived`. A run of a minute or more resets
    /// the pause to the first one.
    std::chrono::milliseconds after(std::chrono::steady_clock::duration lived);

 private:
    std::chrono::milliseconds first_;
    std::chrono::milliseconds greatest_;
    std::chrono::milliseconds next_;
};

}  // namespace vesk::controller
