#include "traffic/pacer.h"

#include <algorithm>

#include "lib/clocks.h"

namespace vesk::bench {
namespace {

// Without this limit, all requests that became due during a stall would be sent as one burst, and
// datagrams lost to the burst would be counted as lost by the forwarder.
constexpr std::uint64_t longestBacklog = 64;

constexpr std::int64_t longestPause = 10'000'000;

}  // namespace

std::size_t Pacer::due(std::int64_t now, std::size_t outstanding) {
    if (window_ > 0) {
        const std::size_t free = window_ - std::min(window_, outstanding);
        return free - free % burst_;
    }
    const double elapsed = static_cast<double>(now - start_) / nanosecondsPerSecond;
    const auto bursts =
        static_cast<std::uint64_t>(elapsed * perSecond_ / static_cast<double>(burst_)) + 1;
    const std::uint64_t backlog = bursts * burst_ - issued_ - skipped_;
    const std::uint64_t limit = longestBacklog - longestBacklog % burst_;
    if (backlog > limit) {
        skipped_ += backlog - limit;
    }
    return std::min(backlog, limit);
}

std::int64_t Pacer::pause(std::int64_t now) const {
    if (window_ > 0) {
        return longestPause;
    }
    const std::uint64_t wholeBursts = (issued_ + skipped_) / burst_ * burst_;
    const double nextAt = static_cast<double>(wholeBursts) / perSecond_ * nanosecondsPerSecond;
    const std::int64_t wait = start_ + static_cast<std::int64_t>(nextAt) - now;
    return std::clamp<std::int64_t>(wait, 0, longestPause);
}

}  // namespace vesk::bench
