// The key and the algorithm of one use of HMAC in a flow's record. It adds the algorithm's name to
// an HmacKey, which says which thread may use it.
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

    /// The name of one of the algorithms above, which exist until the process ends.
    std::string_view algoName;
};

/// For diagnostics only: it prints the key.
// Kept: part of the interface of key records; the forwarder never prints one.
std::ostream& operator<<(std::ostream& out, const HmacInfo& info);

}  // namespace vesk
