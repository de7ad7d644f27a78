#include "arming_model.h"

#include <algorithm>

#include "arming_steps.h"

namespace vesk::model {

namespace {

/// Whether the worker still has to read the socket or to request its arming.
bool isAtIt(const Worker& worker, std::uint8_t endpoint, std::uint8_t number) {
    const bool onItsList = worker.queue.contains(number) || worker.serving.contains(number);
    const bool aboutToLook = worker.step == WorkerStep::lookUp && worker.number == number;
    return onItsList || aboutToLook || worker.endpoint == endpoint ||
           worker.drained.contains(endpoint) || worker.toArm.contains(endpoint) ||
           worker.refused.contains(endpoint);
}

bool isIdle(const Worker& worker) {
    const auto isNone = [](Hold hold) { return hold == Hold::none; };
    return worker.step == WorkerStep::idle && worker.queue.empty() && worker.serving.empty() &&
           worker.drained.empty() && worker.refused.empty() && hasNoUnsentReply(worker) &&
           std::ranges::all_of(worker.holds, isNone);
}

}  // namespace

State firstState(const Bounds& bounds) {
    State state;
    for (std::size_t who = 0; who < state.workers.size(); ++who) {
        for (std::uint8_t i = 0; i < bounds.leftOver.at(who); ++i) {
            state.workers.at(who).queue.push(0);
        }
    }
    return state;
}

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
    return endpoint.watch == Watch::armed || state.ready.contains(endpoint.readNumber) ||
           std::any_of(records.begin(), records.begin() + state.channel.size, onItsWay) ||
           std::ranges::any_of(state.workers, [&](const Worker& worker) {
               return isAtIt(worker, index, endpoint.readNumber);
           });
}

bool isAtRest(const State& state) {
    if (!std::ranges::all_of(state.workers, isIdle) || state.creator != CreatorStep::idle ||
        state.removerHolds != noOne || !state.channel.empty()) {
        return false;
    }
    for (std::uint8_t i = 0; i < state.endpointsMade; ++i) {
        const Endpoint& endpoint = state.endpoints.at(i);
        const bool good = endpoint.filed
                              ? endpoint.prepared && endpoint.data == 0 &&
                                    endpoint.server == noOne && endpoint.watch == Watch::armed
                              : endpoint.deletion == Deletion::done && !socketIsOpen(state, i);
        if (!good) {
            return false;
        }
    }
    return true;
}

}  // namespace vesk::model
