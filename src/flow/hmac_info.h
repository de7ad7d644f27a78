// The key and algorithm of one HMAC use, with the libcrypto context kept for it.
//
// A context belongs to one thread at a time: whoever signs or checks with a record that another
// thread may use too holds the flow's lock for that direction meanwhile.
#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <span>
#include <string_view>

#include "base/secret_bytes.h"

// libcrypto's name for the type; hmac.h is left to the one file that calls it.
using HMAC_CTX = struct hmac_ctx_st;

namespace vesk {

/// The function that names a digest; called when a context is keyed.
using DigestSelector = const EVP_MD* (*)();

struct HmacAlgorithm {
    std::string_view name;
    DigestSelector digest;
};

extern const HmacAlgorithm hmacSha1;
extern const HmacAlgorithm hmacSha256;

struct HmacContextDeleter {
    void operator()(HMAC_CTX* context) const;
};

inline constexpr std::size_t maxHmacKeyLength = 128;

struct HmacInfo {
    HmacInfo();
    ~HmacInfo() = default;
    /// Copies take the key and the algorithm, never the context.
    HmacInfo(const HmacInfo& other);
    HmacInfo& operator=(const HmacInfo& other);

    /// At most 128 bytes. Kept: those beyond the new key keep their old contents; they are wiped
    /// with the record. The tables take keys over with `copyKeyFrom`, which leaves nothing of the
    /// old one.
    void setKey(std::span<const std::uint8_t> newKey);
    void setAlgorithm(const HmacAlgorithm& algorithm);

    /// All that `setKey` and the key's length make up, taken from another record.
    void copyKeyFrom(const HmacInfo& other);
    void copyAlgorithmFrom(const HmacInfo& other);

    bool hasKey() const { return keyLen != 0; }

    // What every datagram needs stands first and together; the key is read when a context is made.

    /// Number of key bytes; 0 means no key, and the flow is unauthenticated.
    std::uint64_t keyLen = 0;
    /// Made on first use and keyed with what the record held then; a change of key or algorithm
    /// drops it.
    std::unique_ptr<HMAC_CTX, HmacContextDeleter> context;
    DigestSelector digest;
    SecretBytes<maxHmacKeyLength> key{};
    /// A constant: the name of one of the algorithms above.
    std::string_view algoName;
};

/// For diagnostics only: it shows the key.
std::ostream& operator<<(std::ostream& out, const HmacInfo& info);

}  // namespace vesk
