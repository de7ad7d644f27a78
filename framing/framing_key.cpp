#include "framing_key.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "base/secret_bytes.h"
#include "framed_bytes.h"

namespace vesk {

namespace {

using Tag = SecretBytes<maxHmacFieldLength>;

/// False if libcrypto fails.
bool computeTag(vesk_framing_key& key, const FramingDescriptor& framing,
                std::span<const std::uint8_t> datagram, std::size_t headerLength,
                std::span<std::uint8_t> tag) {
    return !key.hmac || key.hmac->compute(coveredBy(framing, datagram, headerLength), tag);
}

const EVP_MD* digestFor(vesk_framing_digest digest) {
    switch (digest) {
        case VESK_FRAMING_SHA1:
            return EVP_sha1();
        case VESK_FRAMING_SHA256:
            return EVP_sha256();
        default:
            return nullptr;
    }
}

/// Null, with the result, if there is no memory.
vesk_framing_result keep(std::optional<KeptHmac> hmac, vesk_framing_key** key) {
    std::unique_ptr<vesk_framing_key> made(new (std::nothrow) vesk_framing_key{std::move(hmac)});
    *key = made.release();
    return *key == nullptr ? VESK_FRAMING_NO_MEMORY : VESK_FRAMING_OK;
}

}  // namespace

vesk_framing_result signWith(vesk_framing_key& key, const FramingDescriptor& framing,
                             std::span<std::uint8_t> datagram, std::size_t headerLength) {
    Tag tag{};
    const auto used = std::span(tag).first(framing.hmacLength);
    if (!computeTag(key, framing, datagram, headerLength, used)) {
        return VESK_FRAMING_CRYPTO;
    }
    std::ranges::copy(used, datagram.subspan(framing.hmacOffset, used.size()).begin());
    return VESK_FRAMING_OK;
}

vesk_framing_result checkWith(vesk_framing_key& key, const FramingDescriptor& framing,
                              std::span<const std::uint8_t> datagram, std::size_t headerLength) {
    Tag tag{};
    const auto expected = std::span(tag).first(framing.hmacLength);
    if (!computeTag(key, framing, datagram, headerLength, expected)) {
        return VESK_FRAMING_CRYPTO;
    }
    const auto found = datagram.subspan(framing.hmacOffset, expected.size());
    return CRYPTO_memcmp(expected.data(), found.data(), found.size()) == 0
               ? VESK_FRAMING_OK
               : VESK_FRAMING_WRONG_HMAC;
}

}  // namespace vesk

extern "C" {

vesk_framing_result vesk_framing_key_new(vesk_framing_digest digest, const uint8_t* bytes,
                                         size_t length, vesk_framing_key** key) {
    if (key == nullptr) {
        return VESK_FRAMING_INVALID_ARGUMENT;
    }
    *key = nullptr;
    const EVP_MD* const type = vesk::digestFor(digest);
    if (type == nullptr || (bytes == nullptr && length != 0)) {
        return VESK_FRAMING_INVALID_ARGUMENT;
    }
    if (length == 0 || length > VESK_FRAMING_MAX_KEY) {
        return VESK_FRAMING_KEY_LENGTH;
    }
    auto hmac = vesk::KeptHmac::make(type, std::span(bytes, length));
    return hmac ? vesk::keep(std::move(hmac), key) : VESK_FRAMING_CRYPTO;
}

vesk_framing_result vesk_framing_key_new_empty(vesk_framing_key** key) {
    return key == nullptr ? VESK_FRAMING_INVALID_ARGUMENT : vesk::keep(std::nullopt, key);
}

void vesk_framing_key_free(vesk_framing_key* key) {
    const std::unique_ptr<vesk_framing_key> freed(key);
}

}  // extern "C"
