// Sets libcrypto up, in FIPS mode if the controlling service requires that. Called once at
// start-up, on the main thread, before any other use of libcrypto.
#pragma once

namespace vesk {

/// True if the library is in the required mode; `fipsActive`, if not null, is set to 1 for FIPS
/// mode, else to 0. False, with `fipsActive` unchanged, if FIPS mode is required but cannot be
/// activated: the process must end.
// Kept: `fipsActive` is part of the interface; the forwarder does not use it.
bool initFipsMode(int* fipsActive = nullptr);

/// Makes libcrypto set up its digests now, while memory is available and no other thread runs. The
/// first use of a digest builds tables, which stay unusable if that fails half-way.
void loadDigests();

}  // namespace vesk
