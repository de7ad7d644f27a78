// The commands "start_lateral" and "add_lateral_peer", which connect instances that share one label
// space. Called on the main thread.
#pragma once

#include <memory>

#include "base/command_line.h"

namespace vesk {

struct ForwarderContext;

/// Registers a peer under its index, before or after the stream is started. False, after logging,
/// if the command is invalid. If the resolver fails, std::runtime_error is thrown.
bool addLateralPeer(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context);

/// Opens the lateral endpoint with a new random key and starts its receive thread, which runs until
/// the process ends. False, after logging, on failure. A failure of the resolver is logged like an
/// invalid address.
bool startLateralStream(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context);

}  // namespace vesk
