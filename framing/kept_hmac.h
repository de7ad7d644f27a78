// HMAC with one key, made once and used for many datagrams: kept hash states, which the forwarder
// uses too, or, where libcrypto's default provider does not compute the digest (FIPS mode), a kept
// context of libcrypto. Used by the functions of vesk_framing.h; one thread at a time uses an
// object.
#pragma once

#include <openssl/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "datapath/wire/keyed_digest.h"

namespace vesk {

struct MacContextDeleter {
    void operator()(EVP_MAC_CTX* context) const;
};
using MacContext = std::unique_ptr<EVP_MAC_CTX, MacContextDeleter>;

class KeptHmac {
 public:
    /// None if libcrypto does not offer the digest, or if there is no memory. `key` is not empty.
    static std::optional<KeptHmac> make(const EVP_MD* digest, std::span<const std::uint8_t> key);

    /// The HMAC over the regions in order, cut or padded with zeros to the size of `tag`. False if
    /// libcrypto fails; `tag` must not be used then.
    bool compute(std::span<const std::span<const std::uint8_t>> regions,
                 std::span<std::uint8_t> tag);

 private:
    KeptHmac(std::unique_ptr<const KeyedDigest> states, MacContext context);

    std::unique_ptr<const KeyedDigest> states_;
    /// Used if there are no hash states.
    MacContext context_;
};

}  // namespace vesk
