// The shut-down: stops the threads that the start-up and the commands started. Called on the main
// thread.
#pragma once

namespace vesk {

struct ForwarderContext;

/// Stops the workers and empties their lists. Sets `workerLeftRunning` in the context if one could
/// not be stopped.
void stopWorkers(ForwarderContext& context);

/// Stops all threads and closes the message channel. Returns the exit status: the result of
/// stopping the poll thread, or `status` if that thread was not started. If a thread could not be
/// stopped, the process ends here with that status.
int shutDown(ForwarderContext& context, int status);

}  // namespace vesk
