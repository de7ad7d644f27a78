#include "metrics/readiness.h"

namespace vesk::controller {

std::string_view notReadyBecause(const ChildState& state, bool strict) {
    if (state.stage == Stage::draining) {
        return "the forwarder is about to end";
    }
    if (!state.childUp) {
        return "the forwarder is not running";
    }
    if (state.stage == Stage::settingUp) {
        return "the forwarder is being set up";
    }
    if (!state.listening) {
        return "the forwarder does not listen";
    }
    if (!state.lateralListening.value_or(true)) {
        return "the forwarder does not listen to other instances";
    }
    if (strict && state.flowsActive < state.flowsDeclared) {
        return "the forwarder refuses flows of the file";
    }
    return "";
}

std::string firstObstacle(const std::vector<ChildState>& instances, bool strict) {
    for (std::size_t number = 0; number < instances.size(); ++number) {
        if (const std::string_view obstacle = notReadyBecause(instances[number], strict);
            !obstacle.empty()) {
            return (instances.size() > 1 ? "instance " + std::to_string(number) + ": " : "") +
                   std::string(obstacle);
        }
    }
    return "";
}

}  // namespace vesk::controller
