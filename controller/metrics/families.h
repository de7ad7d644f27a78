// Functions that make metric families from figures. Used by metrics/exposition and
// metrics/kernel_exposition; any thread.
#pragma once

#include <prometheus/metric_family.h>

#include <array>
#include <cstdint>
#include <utility>
#include <vector>

#include "kernel/kernel_figures.h"

namespace vesk::controller {

using Labels = std::vector<prometheus::ClientMetric::Label>;
using Families = std::vector<prometheus::MetricFamily>;

/// The values of the label `side`, in the order of Side.
inline constexpr std::array<const char*, sides> sideNames{"downstream", "lateral", "upstream"};

/// One series. A counter's value beyond 2^53 is rounded.
prometheus::ClientMetric counter(std::uint64_t value, Labels labels = {});
prometheus::ClientMetric gauge(double value, Labels labels = {});
prometheus::ClientMetric seriesOf(prometheus::MetricType type, std::uint64_t value, Labels labels);

/// The metric of one member of a struct of figures.
template <class Figures>
struct FigureMetric {
    std::uint64_t Figures::*value;
    const char* name;
    const char* help;
};

/// Figures, with the labels that distinguish them from other figures of the same metrics.
template <class Figures>
struct LabelledFigures {
    const Figures& figures;
    Labels labels;
};

/// Adds a family for each metric of a table, with a series for each of the figures; nothing if
/// there are no figures.
template <class Table, class Figures>
void addTable(Families& families, prometheus::MetricType type, const Table& metrics,
              const std::vector<LabelledFigures<Figures>>& all) {
    if (all.empty()) {
        return;
    }
    for (const FigureMetric<Figures>& metric : metrics) {
        prometheus::MetricFamily family{metric.name, metric.help, type, {}};
        family.metric.reserve(all.size());
        for (const LabelledFigures<Figures>& one : all) {
            family.metric.push_back(seriesOf(type, one.figures.*metric.value, one.labels));
        }
        families.push_back(std::move(family));
    }
}

/// The same for figures without a label.
template <class Table, class Figures>
void addTable(Families& families, prometheus::MetricType type, const Table& metrics,
              const Figures& figures) {
    addTable(families, type, metrics, std::vector<LabelledFigures<Figures>>{{figures, {}}});
}

/// Adds a family of one series.
void addCounter(Families& families, const char* name, const char* help, std::uint64_t value);
void addGauge(Families& families, const char* name, const char* help, double value,
              Labels labels = {});

}  // namespace vesk::controller
