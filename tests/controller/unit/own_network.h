// A network namespace for a test that changes the packet filter. The calling thread enters it;
// other threads stay in theirs.
#pragma once

#include <functional>
#include <string>

namespace vesk::controller {

/// Runs `test` on a thread of its own in a new network namespace whose loopback interface is up.
/// Returns the reason if that is not allowed.
std::string inOwnNetwork(const std::function<void()>& test);

}  // namespace vesk::controller
