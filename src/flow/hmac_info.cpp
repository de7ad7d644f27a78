#include "flow/hmac_info.h"

#include <openssl/evp.h>

#include <cstddef>
#include <iomanip>
#include <ostream>

namespace vesk {

const HmacAlgorithm hmacSha1{"sha1", &EVP_sha1};
const HmacAlgorithm hmacSha256{"sha256", &EVP_sha256};

HmacInfo::HmacInfo() : HmacKey(hmacSha1.digest), algoName(hmacSha1.name) {}

void HmacInfo::setAlgorithm(const HmacAlgorithm& algorithm) {
    algoName = algorithm.name;
    setDigest(algorithm.digest);
}

void HmacInfo::copyAlgorithmFrom(const HmacInfo& other) {
    algoName = other.algoName;
    setDigest(other.digest);
}

std::ostream& operator<<(std::ostream& out, const HmacInfo& info) {
    out << "key: { size: " << info.keyLen;
    if (info.hasKey()) {
        const std::ios_base::fmtflags flags = out.flags();
        const char fill = out.fill('0');
        out << " data: { " << std::hex;
        for (std::size_t i = 0; i < info.keyLen; ++i) {
            out << std::setw(2) << unsigned{info.key.at(i)};
        }
        out.fill(fill);
        out.flags(flags);
        out << " }";
    }
    return out << " } algo: " << info.algoName << " algofunc: " << (info.digest != nullptr ? 1 : 0)
               << " ctx: " << static_cast<const void*>(info.context.get());
}

}  // namespace vesk
