#include "metrics/readiness.h"

namespace vesk::controller {

std::string_view notReadyBecause(const ControllerState& state) {
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
    return "";
}

}  // namespace vesk::controller
