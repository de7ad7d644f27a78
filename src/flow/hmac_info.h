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

    /// A constant: the name of one of the algorithms above.
    std::string_view algoName;
};

/// For diagnostics only: it shows the key.
std::ostream& operator<<(std::ostream& out, const HmacInfo& info);

}  // namespace vesk
