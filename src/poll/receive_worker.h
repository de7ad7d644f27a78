// The loop of a receive worker, which serves the descriptors that the poll loop puts into its
// queue. Runs on the worker's own thread.
#pragma once

#include "poll/poll_param.h"

namespace vesk {

/// Runs until it is cancelled, which happens only while it waits for descriptors or between two
/// passes.
void runReceiveWorker(PollParam& param);

}  // namespace vesk
