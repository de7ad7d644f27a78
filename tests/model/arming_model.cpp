#include "arming_model.h"

#include <algorithm>

#include "arming_steps.h"

namespace vesk::model {

namespace {

/// Whether the worker still has to read the socket or to request its arming.
bool isAtIt(const Worker& worker, std::uint8_t endpoint, std::uint8_t number) {
    const bool onItsList = worker.queue.contains(number) || worker.serving.contains(number);
    const bool aboutToLook = worker.step == WorkerStep::lookUp && worker.number == number;
    const bool inHand =
        worker.endpoint == endpoint && (worker.step != WorkerStep::release || worker.keep);
    const auto& drained = worker.drained.items;
    const bool toBeArmed =
        std::find(drained.begin() + worker.armed, drained.begin() + worker.drained.size,
                  endpoint) != drained.begin() + worker.drained.size;
    return onItsList || aboutToLook || inHand || toBeArmed || worker.refused.contains(endpoint);
}

}  // namespace

std::vector<Transition> stepsFrom(const State& state, const Rules& rules, const Bounds& bounds) {
    std::vector<Transition> steps;
    Stepper(state, rules, bounds, steps).all();
    return steps;
}

bool isCovered(const State& state, std::uint8_t index) {
    const Endpoint& endpoint = state.endpoints.at(index);
    const auto onItsWay = [index](const Record& record) {
        return record.endpoint == index && (record.op == Op::add || record.op == Op::rearm);
    };
    const auto& records = state.channel.items;
    return endpoint.watch == Watch::armed || state.batch.contains(endpoint.readNumber) ||
           std::any_of(records.begin(), records.begin() + state.channel.size, onItsWay) ||
           std::ranges::any_of(state.workers, [&](const Worker& worker) {
               return isAtIt(worker, index, endpoint.readNumber);
           });
}

bool isAtRest(const State& state) {
    const auto idle = [](const Worker& it) {
        return it.step == WorkerStep::idle && it.queue.empty() && it.serving.empty() &&
               it.drained.empty() && it.refused.empty();
    };
    if (!std::ranges::all_of(state.workers, idle) || state.creator != CreatorStep::idle ||
        state.removerHolds != noOne || !state.channel.empty()) {
        return false;
    }
    for (std::uint8_t i = 0; i < state.endpointsMade; ++i) {
        const Endpoint& endpoint = state.endpoints.at(i);
        const bool good =
            endpoint.filed
                ? endpoint.prepared && endpoint.data == 0 && endpoint.watch == Watch::armed
                : endpoint.deletion == Deletion::done && !socketIsOpen(state, i);
        if (!good) {
            return false;
        }
    }
    return true;
}

}  // namespace vesk::model
