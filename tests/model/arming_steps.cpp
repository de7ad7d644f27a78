#include "arming_steps.h"

#include <algorithm>
#include <utility>

namespace vesk::model {

bool socketIsOpen(const State& state, std::uint8_t index) {
    return std::ranges::find(state.owner, index) != state.owner.end();
}

bool isHeld(const State& state, std::uint8_t index, const Rules& rules) {
    const auto holds = [index, &rules](const Worker& it) {
        const bool toBeArmed = it.drained.contains(index) || it.toArm.contains(index);
        return it.endpoint == index || it.holds.at(index) != Hold::none ||
               it.refused.contains(index) || (rules.holdsDrained && toBeArmed);
    };
    return state.endpoints.at(index).filed || state.creatorHolds == index ||
           state.removerHolds == index || std::ranges::any_of(state.workers, holds);
}

bool hasNoUnsentReply(const Worker& worker) {
    return std::ranges::all_of(worker.unsent, [](std::uint8_t count) { return count == 0; });
}

void closeNumber(State& state, std::uint8_t number) {
    const std::uint8_t index = state.owner.at(number);
    state.owner.at(number) = noOne;
    if (!socketIsOpen(state, index)) {
        // Closing the last descriptor of a socket removes it and its events from the epoll set.
        state.endpoints.at(index).watch = Watch::none;
        state.endpoints.at(index).data = 0;
    }
}

void Stepper::all() {
    outside();
    pollThread();
    creator();
    remover();
    for (std::uint8_t i = 0; i < maxEndpoints; ++i) {
        deleter(i);
    }
    for (std::size_t i = 0; i < from_.workers.size(); ++i) {
        worker(i);
    }
}

void Stepper::add(std::string_view name, const Change& change, bool fromOutside) {
    out_.push_back({name, fromOutside, from_});
    change(out_.back().next);
}

void Stepper::mayFail(std::string_view name, const Change& change) {
    if (from_.failures < bounds_.failures) {
        add(name, [&change](State& next) {
            ++next.failures;
            change(next);
        });
    }
}

/// The last release runs the deleter.
void Stepper::letGo(State& next, std::uint8_t& holder) const {
    disposeIfFree(next, std::exchange(holder, noOne));
}

void Stepper::disposeIfFree(State& next, std::uint8_t index) const {
    Deletion& deletion = next.endpoints.at(index).deletion;
    if (deletion == Deletion::notYet && !isHeld(next, index, rules_)) {
        deletion = Deletion::writeSocket;
    }
}

bool Stepper::channelHasRoom() const {
    return from_.channel.size < bounds_.channel;
}

}  // namespace vesk::model
