// Opens the standard descriptors that were closed when the process was started. Called once, on the
// main thread, at the beginning of main.
#pragma once

namespace vesk {

/// What happens when a stream is used that was closed at start. `fails`: an error, as for a closed
/// descriptor. `isEmpty`: as for the null device, reading finds the end of input and output is
/// discarded.
enum class ClosedStream { fails, isEmpty };

/// Opens the null device under the number of each closed standard descriptor. Otherwise a socket or
/// a pipe could get that number, and the process would read commands from it or write log lines to
/// it.
void occupyStandardDescriptors(ClosedStream closed);

}  // namespace vesk
