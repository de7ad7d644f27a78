// Raises the size limit of core files, so that a crash in production leaves a core file. Called
// once at start-up, on the main thread.
#pragma once

namespace vesk {

/// Removes the limit or, if that fails, raises it to the hard limit. The result is logged; a
/// failure does not prevent the start.
void allowCoreDumps();

}  // namespace vesk
