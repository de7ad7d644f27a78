// The descriptors that the service manager passes to this process at its start: those that an
// earlier one has left in its store. Called by service/supervisor before it starts any thread.
#pragma once

#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace vesk::controller {

struct PassedDescriptor {
    std::string name;
    UniqueFd descriptor;
};

/// Takes the descriptors from 3 on that LISTEN_PID, LISTEN_FDS and LISTEN_FDNAMES announce, so that
/// no program inherits them, and removes the variables. None if they are meant for another process.
/// A descriptor without a name has an empty one.
std::vector<PassedDescriptor> takePassedDescriptors();

}  // namespace vesk::controller
