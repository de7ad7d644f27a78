// Puts libcrypto into FIPS mode where the controlling service requires it. Called once at start-up,
// before anything else uses libcrypto.
#pragma once

namespace vesk {

/// True where the library is in the mode required; tells in `fipsActive`, if given, whether that is
/// FIPS mode. False, with `fipsActive` untouched, where it is required and cannot be had: the
/// process must not go on.
// Kept: `fipsActive` is part of the interface; the forwarder has no use for it.
bool initFipsMode(int* fipsActive = nullptr);

/// Makes libcrypto set up its digests now, while memory is plenty and no other thread runs. Its
/// first use of a digest builds tables that stay unusable if it is cut short.
void loadDigests();

}  // namespace vesk
