// Counts durations in buckets whose width grows with the value, so that millions of samples take a
// fixed amount of memory and percentiles are accurate to two percent.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vesk::bench {

class LatencyHistogram {
 public:
    void add(std::int64_t nanoseconds);

    /// The value below which the given fraction (0 to 1) of the samples lies; 0 without samples.
    double percentile(double fraction) const;

 private:
    static constexpr std::size_t stepsPerOctave = 64;
    static constexpr std::size_t octaves = 36;  // from 64 ns up to more than an hour

    std::uint64_t samples_ = 0;
    std::array<std::uint64_t, stepsPerOctave * octaves> buckets_{};
};

}  // namespace vesk::bench
