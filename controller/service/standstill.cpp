#include "service/standstill.h"

#include <utility>

namespace vesk::controller {

namespace {

void append(std::vector<std::uint64_t>& counters, const DatagramCounters& more) {
    for (const auto field : datagramFields) {
        counters.push_back(more.*field);
    }
}

}  // namespace

std::vector<std::uint64_t> trafficCounters(const Report& report) {
    std::vector<std::uint64_t> counters;
    append(counters, report.downstream.value_or(DatagramCounters{}));
    append(counters, report.lateral.value_or(DatagramCounters{}));
    for (const FlowRow& flow : report.flows) {
        counters.push_back(flow.label);
        append(counters, flow.counters);
    }
    return counters;
}

bool Standstill::observe(std::vector<std::uint64_t> counters, Clock::time_point now) {
    if (counters_ != counters) {
        counters_ = std::move(counters);
        since_ = now;
    }
    return now - since_ >= rest_;
}

}  // namespace vesk::controller
