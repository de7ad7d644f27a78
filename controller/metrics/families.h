// Shorthands to make metric families of figures. Used by metrics/exposition and
// metrics/kernel_exposition; any thread.
#pragma once

#include <prometheus/metric_family.h>

#include <cstdint>
#include <vector>

namespace vesk::controller {

using Labels = std::vector<prometheus::ClientMetric::Label>;
using Families = std::vector<prometheus::MetricFamily>;

/// One series. A counter's value beyond 2^53 is rounded.
prometheus::ClientMetric counter(std::uint64_t value, Labels labels = {});
prometheus::ClientMetric gauge(double value, Labels labels = {});

/// A family of one series.
void addCounter(Families& families, const char* name, const char* help, std::uint64_t value);
void addGauge(Families& families, const char* name, const char* help, double value,
              Labels labels = {});

}  // namespace vesk::controller
