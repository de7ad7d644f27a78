// What the process takes from its environment, apart from FIPS mode (control/crypto_provider).
// Called once at start-up, on the main thread.
#pragma once

#include "net/local_address.h"

namespace vesk {

/// What VESK_IPV4_SOURCE asks for: `arrival` where it is exactly that, else `kernel`.
Ipv4Source ipv4SourceFromEnvironment();

}  // namespace vesk
