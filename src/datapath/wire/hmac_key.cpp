#include "datapath/wire/hmac_key.h"

#include <openssl/hmac.h>

#include <algorithm>

#include "log/log.h"

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
    release();
}

void HmacKey::setDigest(DigestSelector selector) {
    digest = selector;
    release();
}

void HmacKey::copyKeyFrom(const HmacKey& other) {
    keyLen = other.keyLen;
    key = other.key;
    release();
}

bool HmacKey::prepare() {
    if (states || context) {
        return true;
    }
    states = KeyedDigest::make(digest(), std::span(key).first(keyLen));
    return states || makeContext();
}

bool HmacKey::makeContext() {
    release();
    context.reset(HMAC_CTX_new());
    if (!context) {
        logWarn("Failed to create an HMAC context");
        return false;
    }
    if (HMAC_Init_ex(context.get(), key.data(), static_cast<int>(keyLen), digest(), nullptr) != 1) {
        // Released, so that the next datagram does not use a context without a key.
        context.reset();
        return false;
    }
    return true;
}

void HmacKey::release() {
    states.reset();
    context.reset();
}

}  // namespace vesk
