// The two ways in which the loops compute the HMAC of a datagram.
#pragma once

#include <openssl/hmac.h>
#include <openssl/sha.h>

#include <memory>
#include <variant>

#include "lib/authentication.h"

namespace vesk::bench {

/// libcrypto's HMAC calls: one context per key, created for the first datagram and reset for every
/// further one.
class CachedHmac {
 public:
    explicit CachedHmac(const HmacKey& key) : key_(key) {}
    std::size_t digest(const HashedRanges& ranges, DigestBuffer out);

 private:
    struct ContextDeleter {
        void operator()(HMAC_CTX* context) const;
    };

    HmacKey key_;
    std::unique_ptr<HMAC_CTX, ContextDeleter> context_;
};

/// The cheapest correct way: the hash states after the two padded keys are computed once and copied
/// for each datagram. There is no lookup, allocation or dispatch.
class PrecomputedHmac {
 public:
    explicit PrecomputedHmac(const HmacKey& key);
    std::size_t digest(const HashedRanges& ranges, DigestBuffer out) const;

 private:
    struct Sha1States {
        SHA_CTX inner;
        SHA_CTX outer;
    };
    struct Sha256States {
        SHA256_CTX inner;
        SHA256_CTX outer;
    };

    std::variant<std::monostate, Sha1States, Sha256States> states_;
};

}  // namespace vesk::bench
