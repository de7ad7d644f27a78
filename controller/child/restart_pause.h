// How long to wait before a forwarder that ended by itself is started again: longer with each time
// in a row, so that one which cannot live does not keep the machine busy. Called by
// service/supervisor.
#pragma once

#include <chrono>

namespace vesk::controller {

class RestartPause {
 public:
    RestartPause(std::chrono::milliseconds first, std::chrono::milliseconds greatest);

    /// The pause after a forwarder that lived for so long. One that lived for a minute starts over.
    std::chrono::milliseconds after(std::chrono::steady_clock::duration lived);

 private:
    std::chrono::milliseconds first_;
    std::chrono::milliseconds greatest_;
    std::chrono::milliseconds next_;
};

}  // namespace vesk::controller
