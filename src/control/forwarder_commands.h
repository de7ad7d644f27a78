// The commands "start", "stop" and "log", which act on the forwarder as a whole. Called on the main
// thread.
#pragma once

#include <memory>

#include "base/command_line.h"

namespace vesk {

struct ForwarderContext;

/// Opens the downstream endpoint and starts its receive thread. False, after logging, on failure.
/// If the resolver fails, std::runtime_error is thrown.
bool startForwarder(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context);

/// Stops the downstream receive threads and closes their sockets before it returns. A thread that
/// cannot be stopped keeps its socket. Always true.
bool stopForwarder(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context);
bool stopForwarder(ForwarderContext& context);

/// Changes the log level. An unknown name changes nothing and is not logged.
bool setLogParams(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context);

}  // namespace vesk
