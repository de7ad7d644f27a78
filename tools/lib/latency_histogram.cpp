#include "lib/latency_histogram.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>

namespace vesk::bench {

void LatencyHistogram::add(std::int64_t nanoseconds) {
    const auto value = static_cast<std::uint64_t>(std::max<std::int64_t>(nanoseconds, 0));
    // A value below stepsPerOctave is its own bucket; the leading bits of a larger one select it.
    const unsigned octave =
        value < stepsPerOctave ? 0 : static_cast<unsigned>(std::bit_width(value / stepsPerOctave));
    const std::uint64_t step = octave == 0 ? value : (value >> (octave - 1)) - stepsPerOctave;
    const std::size_t bucket = octave * stepsPerOctave + step;
    ++buckets_[std::min(bucket, buckets_.size() - 1)];
    ++samples_;
}

double LatencyHistogram::percentile(double fraction) const {
    const auto wanted =
        static_cast<std::uint64_t>(std::ceil(fraction * static_cast<double>(samples_)));
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < buckets_.size() && samples_ > 0; ++i) {
        seen += buckets_[i];
        if (seen >= wanted) {
            const auto octave = static_cast<int>(i / stepsPerOctave);
            const auto step = static_cast<double>(i % stepsPerOctave);
            return octave == 0 ? step : std::ldexp(stepsPerOctave + step + 0.5, octave - 1);
        }
    }
    return 0;
}

}  // namespace vesk::bench
