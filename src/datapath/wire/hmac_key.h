// The key and the digest of an HMAC, with what is kept to compute it: two hash states, or, in FIPS
// mode, a libcrypto context. Set by commands on the main thread; used by the receive threads and
// the workers for each datagram.
//
// Only one thread at a time may prepare a key or use its context: a thread that signs or checks
// with a key that other threads may use holds the flow's lock for that direction. A prepared key
// with hash states is only read.
#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "base/secret_bytes.h"
#include "datapath/wire/keyed_digest.h"

// libcrypto's type, declared here so that users of this header do not need hmac.h.
using HMAC_CTX = struct hmac_ctx_st;

namespace vesk {

/// Returns a digest. Called when a key is prepared.
using DigestSelector = const EVP_MD* (*)();

struct HmacContextDeleter {
    void operator()(HMAC_CTX* context) const;
};

/// In bytes.
inline constexpr std::size_t maxHmacKeyLength = 128;

struct HmacKey {
    explicit HmacKey(DigestSelector selector) : digest(selector) {}
    ~HmacKey() = default;
    /// A copy has the key and the digest, and is not prepared.
    HmacKey(const HmacKey& other);
    HmacKey& operator=(const HmacKey& other);

    /// At most 128 bytes. Kept: bytes of an older key beyond the new key's length are not
    /// overwritten; they are wiped with the record. The tables copy keys by `copyKeyFrom`, which
    /// overwrites the old key.
    void setKey(std::span<const std::uint8_t> newKey);
    void setDigest(DigestSelector selector);

    /// Copies all 128 bytes of the key, and its length.
    void copyKeyFrom(const HmacKey& other);

    bool hasKey() const { return keyLen != 0; }

    /// Makes the hash states, or else the context, with the key and digest set now; does nothing if
    /// either exists. The first computation calls it. False if libcrypto fails.
    bool prepare();
    /// Makes the context; from then on it is used. False if libcrypto fails.
    bool makeContext();

    // Members needed for each datagram come first. The key is read only when it is prepared.

    /// Number of key bytes. 0 means no key: datagrams are not authenticated.
    std::uint64_t keyLen = 0;
    /// The hash states. Released when the key or the digest changes.
    std::unique_ptr<const KeyedDigest> states;
    /// Used if there are no hash states. Released when the key or the digest changes.
    std::unique_ptr<HMAC_CTX, HmacContextDeleter> context;
    DigestSelector digest;
    SecretBytes<maxHmacKeyLength> key{};

 private:
    void release();
};

}  // namespace vesk
