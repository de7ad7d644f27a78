#include "flow/hmac_info.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <iomanip>
#include <ostream>

namespace vesk {

const HmacAlgorithm hmacSha1{"sha1", &EVP_sha1};
const HmacAlgorithm hmacSha256{"sha256", &EVP_sha256};

void HmacContextDeleter::operator()(HMAC_CTX* context) const {
    HMAC_CTX_free(context);
}

HmacInfo::HmacInfo() : digest(hmacSha1.digest), algoName(hmacSha1.name) {}

HmacInfo::HmacInfo(const HmacInfo& other)
    : keyLen(other.keyLen), digest(other.digest), key(other.key), algoName(other.algoName) {}

HmacInfo& HmacInfo::operator=(const HmacInfo& other) {
    if (this != &other) {
        copyKeyFrom(other);
        copyAlgorithmFrom(other);
    }
    return *this;
}

void HmacInfo::setKey(std::span<const std::uint8_t> newKey) {
    std::copy(newKey.begin(), newKey.end(), key.begin());
    keyLen = newKey.size();
    context.reset();
}

void HmacInfo::setAlgorithm(const HmacAlgorithm& algorithm) {
    algoName = algorithm.name;
    digest = algorithm.digest;
    context.reset();
}

void HmacInfo::copyKeyFrom(const HmacInfo& other) {
    keyLen = other.keyLen;
    key = other.key;
    context.reset();
}

void HmacInfo::copyAlgorithmFrom(const HmacInfo& other) {
    algoName = other.algoName;
    digest = other.digest;
    context.reset();
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
