// HMAC from two kept hash states: the one after the key's inner block and the one after its outer
// block. A computation continues copies of them and allocates nothing. Used by the keys of flows
// and of the lateral stream, for each datagram, where libcrypto computes its digests itself; in
// FIPS mode it does not.
//
// Constant once made: any number of threads may compute at the same time.
#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "base/secret_bytes.h"

namespace vesk {

/// In bytes; those of the longest digest.
inline constexpr std::size_t maxDigestLength = 32;

class KeyedDigest {
 public:
    /// Null if the digest is not libcrypto's own SHA-1 or SHA-256, as in FIPS mode, or if there is
    /// no memory: the HMAC must then be computed by libcrypto's HMAC calls.
    static std::unique_ptr<KeyedDigest> make(const EVP_MD* type, std::span<const std::uint8_t> key);

    /// Writes the HMAC over the regions in order, and returns its length; 0 if libcrypto fails.
    std::size_t compute(std::span<const std::span<const std::uint8_t>> regions,
                        std::span<std::uint8_t, maxDigestLength> out) const;

 private:
    enum class Hash : std::uint8_t { sha1, sha256 };

    explicit KeyedDigest(Hash hash) : hash_(hash) {}
    bool setKey(std::span<const std::uint8_t> key);

    /// What each hash remembers of its first block. SHA-1 needs only the first 20 bytes.
    SecretBytes<maxDigestLength> inner_{};
    SecretBytes<maxDigestLength> outer_{};
    Hash hash_;
};

}  // namespace vesk
