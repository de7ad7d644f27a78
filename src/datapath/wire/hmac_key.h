// What an HMAC is made with: a key, its digest, and the libcrypto context that is kept for the two.
//
// A context belongs to one thread at a time: whoever signs or checks with a key that another thread
// may use too holds the flow's lock for that direction meanwhile.
#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "base/secret_bytes.h"

// libcrypto's name for the type; hmac.h is left to the one file that calls it.
using HMAC_CTX = struct hmac_ctx_st;

namespace vesk {

/// The function that names a digest; called when a context is keyed.
using DigestSelector = const EVP_MD* (*)();

struct HmacContextDeleter {
    void operator()(HMAC_CTX* context) const;
};

inline constexpr std::size_t maxHmacKeyLength = 128;

struct HmacKey {
    explicit HmacKey(DigestSelector selector) : digest(selector) {}
    ~HmacKey() = default;
    /// Copies take the key and the digest, never the context.
    HmacKey(const HmacKey& other);
    HmacKey& operator=(const HmacKey& other);

    /// At most 128 bytes. Kept: those beyond the new key keep their old contents; they are wiped
    /// with the record. The tables take keys over with `copyKeyFrom`, which leaves nothing of the
    /// old one.
    void setKey(std::span<const std::uint8_t> newKey);
    void setDigest(DigestSelector selector);

    /// All that `setKey` and the key's length make up, taken from another one.
    void copyKeyFrom(const HmacKey& other);

    bool hasKey() const { return keyLen != 0; }

    // What every datagram needs stands first and together; the key is read when a context is made.

    /// Number of key bytes; 0 means no key, and the flow is unauthenticated.
    std::uint64_t keyLen = 0;
    /// Made on first use and keyed with what was there then; a change of key or digest drops it.
    std::unique_ptr<HMAC_CTX, HmacContextDeleter> context;
    DigestSelector digest;
    SecretBytes<maxHmacKeyLength> key{};
};

}  // namespace vesk
