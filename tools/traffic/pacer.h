// Decides how many requests are due: a closed loop keeps a number of them outstanding, an open loop
// sends at a fixed rate, whether or not answers arrive. Both may send in bursts.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vesk::bench {

class Pacer {
 public:
    /// Requests are due in multiples of `burst`, which is at most `window`.
    static Pacer closedLoop(std::size_t window, std::size_t burst = 1) {
        return Pacer(window, 0, 0, burst);
    }
    /// `burst` requests, at most 64, are due every `burst` / `perSecond` seconds.
    static Pacer openLoop(double perSecond, std::int64_t start, std::size_t burst = 1) {
        return Pacer(0, perSecond, start, burst);
    }

    std::size_t due(std::int64_t now, std::size_t outstanding);
    void sent(std::size_t count) { issued_ += count; }

    /// Nanoseconds until more requests may be due even if nothing arrives.
    std::int64_t pause(std::int64_t now) const;

    /// Requests that an open loop left out because it could not keep up.
    std::uint64_t skipped() const { return skipped_; }

 private:
    Pacer(std::size_t window, double perSecond, std::int64_t start, std::size_t burst)
        : window_(window), perSecond_(perSecond), start_(start), burst_(burst) {}

    std::size_t window_;
    double perSecond_;
    std::int64_t start_;
    std::uint64_t burst_;
    std::uint64_t issued_ = 0;
    std::uint64_t skipped_ = 0;
};

}  // namespace vesk::bench
