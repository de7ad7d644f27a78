// Shut-down, which mirrors the start-up. Called on the main thread.
#pragma once

namespace vesk {

struct ForwarderContext;

/// Stops the receive workers and empties their lists; notes in the context whether one could not be
/// stopped.
void stopWorkers(ForwarderContext& context);

/// Stops all threads and closes the message channel. Returns the exit status, which stopping the
/// poll thread replaces. Where a thread could not be stopped it ends the process instead.
int shutDown(ForwarderContext& context, int status);

}  // namespace vesk
