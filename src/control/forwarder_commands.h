// "start", "stop" and "log": the commands that act on the forwarder as a whole. Called on the main
// thread.
#pragma once

#include <memory>

#include "base/command_line.h"

namespace vesk {

struct ForwarderContext;

/// Opens the downstream endpoint and starts its receive thread. A resolver failure passes through
/// as std::runtime_error.
bool startForwarder(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context);

/// Ends the downstream receive thread and closes its socket before it returns. A thread that cannot
/// be stopped keeps its socket. Always true.
bool stopForwarder(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context);
bool stopForwarder(ForwarderContext& context);

/// Changes the log level. An unknown name changes nothing and is not logged.
bool setLogParams(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context);

}  // namespace vesk
