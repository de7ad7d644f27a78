// The descriptors with which a controller holds a running forwarder. Made by service/adoption from
// what an earlier controller left with the service manager, given to child/child_process; on the
// main thread.
#pragma once

#include "base/unique_fd.h"

namespace vesk::controller {

struct ForwarderDescriptors {
    UniqueFd input;    ///< the end of the pipe that the forwarder reads its commands from
    UniqueFd output;   ///< the end of the pipe that the forwarder writes its log to
    UniqueFd process;  ///< a pidfd
};

}  // namespace vesk::controller
