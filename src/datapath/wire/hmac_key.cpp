#include "datapath/wire/hmac_key.h"

#include <openssl/hmac.h>

#include <algorithm>

namespace vesk {

void HmacContextDeleter::operator()(HMAC_CTX* context) const {
    HMAC_CTX_free(context);
}

HmacKey::HmacKey(const HmacKey& other)
    : keyLen(other.keyLen), digest(other.digest), key(other.key) {}

HmacKey& HmacKey::operator=(const HmacKey& other) {
    if (this != &other) {
        copyKeyFrom(other);
        setDigest(other.digest);
    }
    return *this;
}

void HmacKey::setKey(std::span<const std::uint8_t> newKey) {
    std::copy(newKey.begin(), newKey.end(), key.begin());
    keyLen = newKey.size();
    context.reset();
}

void HmacKey::setDigest(DigestSelector selector) {
    digest = selector;
    context.reset();
}

void HmacKey::copyKeyFrom(const HmacKey& other) {
    keyLen = other.keyLen;
    key = other.key;
    context.reset();
}

}  // namespace vesk
