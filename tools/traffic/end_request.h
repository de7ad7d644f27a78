// Lets SIGINT and SIGTERM end the measured time early. Used by the traffic run, on its thread.
#pragma once

#include <cstdint>

namespace vesk::bench {

/// Blocks both signals in the calling thread, which must be the only one, so that they wait until
/// they are looked for. A signal that has arrived stays pending: it ends all that follows as well.
class EndRequest {
 public:
    EndRequest();

    /// Whether one of the signals has arrived; asks the kernel at most every 20 ms.
    /// `now` is in nanoseconds.
    bool arrived(std::int64_t now);

 private:
    bool arrived_ = false;
    std::int64_t nextLook_ = 0;
};

}  // namespace vesk::bench
