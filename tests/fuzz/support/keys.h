// The keys with which the fuzz targets check and sign datagrams.
#pragma once

#include <array>

#include "support/framed.h"

namespace vesk::fuzz {

/// No key, a short key for SHA-1, and one longer than a SHA-256 block. The seeds are signed with
/// them.
const std::array<TestKey, 3>& someKeys();

}  // namespace vesk::fuzz
