// Reads the environment variables of the forwarder, except those of FIPS mode
// (control/crypto_provider). Called once at start-up, on the main thread.
#pragma once

#include "net/local_address.h"

namespace vesk {

/// `arrival` if VESK_IPV4_SOURCE has exactly that value, else `kernel`.
Ipv4Source ipv4SourceFromEnvironment();

}  // namespace vesk
