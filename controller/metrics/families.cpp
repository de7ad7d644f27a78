#include "metrics/families.h"

#include <utility>

namespace vesk::controller {

using prometheus::ClientMetric;
using prometheus::MetricType;

ClientMetric counter(std::uint64_t value, Labels labels) {
    ClientMetric metric;
    metric.label = std::move(labels);
    metric.counter.value = static_cast<double>(value);
    return metric;
}

ClientMetric gauge(double value, Labels labels) {
    ClientMetric metric;
    metric.label = std::move(labels);
    metric.gauge.value = value;
    return metric;
}

ClientMetric seriesOf(MetricType type, std::uint64_t value, Labels labels) {
    return type == MetricType::Counter ? counter(value, std::move(labels))
                                       : gauge(static_cast<double>(value), std::move(labels));
}

void addCounter(Families& families, const char* name, const char* help, std::uint64_t value) {
    families.push_back({name, help, MetricType::Counter, {counter(value)}});
}

void addGauge(Families& families, const char* name, const char* help, double value, Labels labels) {
    families.push_back({name, help, MetricType::Gauge, {gauge(value, std::move(labels))}});
}

}  // namespace vesk::controller
