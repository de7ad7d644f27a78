// How warnings name a flow: by its place in the file, or by its name. Used by
// config/configuration_warnings and config/key_warnings. Any thread.
#pragma once

#include <string>

#include "config/configuration.h"
#include "config/key_mask.h"

namespace vesk::controller {

/// "flows.alice" or "flows.alice.next".
inline std::string placeOf(const Flow& flow) {
    return "flows." + shownName(flow.name) + (flow.isNext ? ".next" : "");
}

/// "alice" or "next of alice", without keys.
inline std::string shownNameOf(const Flow& flow) {
    return (flow.isNext ? "next of " : "") + shownName(flow.name);
}

}  // namespace vesk::controller
