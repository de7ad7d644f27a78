// The worker loop: serves the descriptors that the poll loop hands to one queue. Runs on the
// worker's own thread.
#pragma once

#include "poll/poll_param.h"

namespace vesk {

/// Runs until cancelled: while it waits for descriptors, or between two passes.
void runReceiveWorker(PollParam& param);

}  // namespace vesk
