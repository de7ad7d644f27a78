#include "kept_hmac.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "base/secret_bytes.h"

namespace vesk {

namespace {

using Region = std::span<const std::uint8_t>;
using LongestDigest = SecretBytes<EVP_MAX_MD_SIZE>;

MacContext contextWith(const EVP_MD* digest, Region key) {
    const std::unique_ptr<EVP_MAC, decltype(&EVP_MAC_free)> hmac(
        EVP_MAC_fetch(nullptr, "HMAC", nullptr), &EVP_MAC_free);
    MacContext context(hmac ? EVP_MAC_CTX_new(hmac.get()) : nullptr);
    std::string name = EVP_MD_get0_name(digest);
    const std::array<OSSL_PARAM, 2> parameters{
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, name.data(), 0),
        OSSL_PARAM_construct_end()};
    if (context && EVP_MAC_init(context.get(), key.data(), key.size(), parameters.data()) != 1) {
        context.reset();
    }
    return context;
}

/// Returns the length of the digest; 0 if libcrypto fails.
std::size_t computeByContext(EVP_MAC_CTX& context, std::span<const Region> regions,
                             LongestDigest& out) {
    // Without a key: the context continues with the one that it has.
    if (EVP_MAC_init(&context, nullptr, 0, nullptr) != 1) {
        return 0;
    }
    for (const Region& region : regions) {
        if (EVP_MAC_update(&context, region.data(), region.size()) != 1) {
            return 0;
        }
    }
    std::size_t length = 0;
    return EVP_MAC_final(&context, out.data(), &length, out.size()) == 1 ? length : 0;
}

}  // namespace

void MacContextDeleter::operator()(EVP_MAC_CTX* context) const {
    EVP_MAC_CTX_free(context);
}

KeptHmac::KeptHmac(std::unique_ptr<const KeyedDigest> states, MacContext context)
    : states_(std::move(states)), context_(std::move(context)) {}

std::optional<KeptHmac> KeptHmac::make(const EVP_MD* digest, Region key) {
    auto states = KeyedDigest::make(digest, key);
    auto context = states ? MacContext() : contextWith(digest, key);
    if (!states && !context) {
        return std::nullopt;
    }
    return KeptHmac(std::move(states), std::move(context));
}

bool KeptHmac::compute(std::span<const Region> regions, std::span<std::uint8_t> tag) {
    LongestDigest digest;
    const std::size_t length =
        states_ ? states_->compute(regions, std::span(digest).first<maxDigestLength>())
                : computeByContext(*context_, regions, digest);
    std::ranges::fill(tag, std::uint8_t{0});
    std::copy_n(digest.begin(), std::min(length, tag.size()), tag.begin());
    return length != 0;
}

}  // namespace vesk
