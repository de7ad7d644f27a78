// Compares the framing library with the test vectors.
#pragma once

#include <string>

#include "support/vectors.h"

namespace vesk {

/// Whether the library opens the datagram to the fields, and makes it from them.
bool libraryAgrees(const DatagramVector& vector);

/// Whether the library makes the one datagram from the other.
bool libraryAgrees(const RelabelVector& vector);

/// Why the library refuses the datagram, in the words of the vectors; "accepted" if it does not.
std::string libraryReason(const Refusal& refusal);

}  // namespace vesk
