// "start_lateral" and "add_lateral_peer": joining instances that share one population of labels.
// Called on the main thread.
#pragma once

#include <memory>

#include "base/command_line.h"

namespace vesk {

struct ForwarderContext;

/// Registers a peer under its index, before or after the stream was started. A resolver failure
/// passes through as std::runtime_error.
bool addLateralPeer(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context);

/// Opens the lateral endpoint with a new random key and starts its receive thread; once started it
/// runs until the process ends. A resolver failure is reported like an invalid address.
bool startLateralStream(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context);

}  // namespace vesk
