// The life of the process: start-up, the command loop, and shut-down. Called by main, on the main
// thread.
#pragma once

#include <span>

namespace vesk {

/// Runs the forwarder until the end of its input. `texts` are the arguments after the program's
/// name. Returns the exit status of the process.
int runForwarder(std::span<const char* const> texts);

}  // namespace vesk
