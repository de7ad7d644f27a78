// The key and algorithm of one HMAC use, as a flow's record holds them: the algorithm is known by
// its name, and both can be shown. Whose thread may use it, see HmacKey.
#pragma once

#include <iosfwd>
#include <string_view>

#include "datapath/wire/hmac_key.h"

namespace vesk {

struct HmacAlgorithm {
    std::string_view name;
    DigestSelector digest;
};

extern const HmacAlgorithm hmacSha1;
extern const HmacAlgorithm hmacSha256;

struct HmacInfo : HmacKey {
    HmacInfo();

    void setAlgorithm(const HmacAlgorithm& algorithm);
    void copyAlgorithmFrom(const HmacInfo& other);

    /// The name of one of the algorithms above, which lives as long as the process.
    std::string_view algoName;
};

/// For diagnostics only: it shows the key.
// Kept: part of the interface of key records; the forwarder never prints one.
std::ostream& operator<<(std::ostream& out, const HmacInfo& info);

}  // namespace vesk
