// Descriptors of processes (pidfd). Called by child/child_process and service/, on the main thread.
#pragma once

#include <sys/types.h>

#include "base/unique_fd.h"

namespace vesk::controller {

/// Empty if there is no such process.
UniqueFd processDescriptor(pid_t pid);

/// Nothing happens if the process has ended.
void signalProcess(int descriptor, int number);

/// The process id; -1 if the descriptor is no pidfd, or the process has ended and was reaped.
pid_t processOf(int descriptor);

/// Whether the process has ended. False if the descriptor is no pidfd.
bool hasEnded(int descriptor);

}  // namespace vesk::controller
