// Lifts the core-file size limit, so that a crash in the field leaves something to look at. Called
// once at start-up.
#pragma once

namespace vesk {

/// Tries for no limit, else for as much as the hard limit allows. Logs what came of it; never a
/// reason not to start.
void allowCoreDumps();

}  // namespace vesk
