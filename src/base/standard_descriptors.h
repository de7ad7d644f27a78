// Standard input, output and error where the process was started without one of them. Called once,
// at the beginning of main.
#pragma once

namespace vesk {

/// How reading and writing a stream that was closed at start ends: with an error, as for a closed
/// descriptor, or like those of the null device.
enum class ClosedStream { fails, isEmpty };

/// Keeps the numbers of closed standard descriptors from going to sockets and pipes, which would
/// then be read for commands or written full of log lines.
void occupyStandardDescriptors(ClosedStream closed);

}  // namespace vesk
