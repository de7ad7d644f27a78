// The life of the process on its main thread: start-up, the command loop and, mirroring the first,
// shut-down.
#pragma once

#include <span>

namespace vesk {

/// Runs the forwarder until its input ends. `texts` are the arguments after the program's name.
/// Returns the process's exit status.
int runForwarder(std::span<const char* const> texts);

}  // namespace vesk
