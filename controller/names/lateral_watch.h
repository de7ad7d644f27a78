// Notices in the reports that a lateral peer may be gone, so that its name is asked again at once.
// Owned by service/instance; one thread, the controller's main thread.
#pragma once

#include <cstdint>

namespace vesk::controller {

/// The lateral socket's counters since it was opened.
struct LateralCounters {
    std::uint64_t received = 0;
    std::uint64_t sent = 0;
    std::uint64_t dropped = 0;
};

class LateralWatch {
 public:
    /// Takes the counters of a report. True if, since the last one, a datagram could not be handed
    /// over, or some were and nothing came back from any instance.
    bool observe(const LateralCounters& now);

 private:
    LateralCounters last_;
};

}  // namespace vesk::controller
