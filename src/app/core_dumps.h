// Raises the size limit of core files, so that a crash in production leaves a core file. Called
// once at start-up, on the main thread.
#pragma once

namespace vesk {

/// Removes the limit, or else raises it to the hard limit. The result is logged; on failure the
/// process starts all the same.
void allowCoreDumps();

}  // namespace vesk
