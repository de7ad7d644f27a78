// The life of the process on its main thread: start-up, the command loop and, mirroring the first,
// shut-down.
#pragma once

#include <memory>
#include <span>

#include "app/arguments.h"

namespace vesk {

struct ForwarderContext;

/// Runs the forwarder until its input ends. `texts` are the arguments after the program's name.
/// Returns the process's exit status.
int runForwarder(std::span<const char* const> texts);

}  // namespace vesk
