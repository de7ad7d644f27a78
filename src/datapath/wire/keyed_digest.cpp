#include "datapath/wire/keyed_digest.h"

#include <openssl/evp.h>
#include <openssl/provider.h>
#include <openssl/sha.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

// libcrypto 3 marks SHA1_Init, SHA1_Update, SHA1_Final and their SHA256 counterparts as deprecated
// in favour of EVP_Digest. They are used here, and only here, because a state of theirs is a plain
// value: it is copied on the stack. To reset an HMAC or a digest context, libcrypto copies contexts
// on the heap, with four allocations for each HMAC. All 3.x releases export these calls. They are
// the same code that the default provider runs; no other provider is bypassed (see `make`).

namespace vesk {

namespace {

using Region = std::span<const std::uint8_t>;

// Common names for the two hashes, so that HMAC is written once.

bool begin(SHA_CTX& state) {
    return SHA1_Init(&state) == 1;
}
bool begin(SHA256_CTX& state) {
    return SHA256_Init(&state) == 1;
}
bool absorb(SHA_CTX& state, Region bytes) {
    return SHA1_Update(&state, bytes.data(), bytes.size()) == 1;
}
bool absorb(SHA256_CTX& state, Region bytes) {
    return SHA256_Update(&state, bytes.data(), bytes.size()) == 1;
}
bool finish(SHA_CTX& state, std::uint8_t* digest) {
    return SHA1_Final(digest, &state) == 1;
}
bool finish(SHA256_CTX& state, std::uint8_t* digest) {
    return SHA256_Final(digest, &state) == 1;
}

/// In bytes; of both hashes.
constexpr std::size_t blockSize = 64;
static_assert(SHA_CBLOCK == blockSize && SHA256_CBLOCK == blockSize);

/// In bytes.
template <typename State>
constexpr std::size_t digestLength = SHA256_DIGEST_LENGTH;
template <>
constexpr std::size_t digestLength<SHA_CTX> = SHA_DIGEST_LENGTH;

// A state begins with the chaining value: as many bytes as the digest, followed by the number of
// bits absorbed. After a whole block it holds nothing else of what was absorbed.
static_assert(offsetof(SHA_CTX, h0) == 0 && offsetof(SHA_CTX, Nl) == digestLength<SHA_CTX>);
static_assert(offsetof(SHA256_CTX, h) == 0 && offsetof(SHA256_CTX, Nl) == digestLength<SHA256_CTX>);

/// A state that is wiped on destruction.
template <typename State>
struct SecretState {
    SecretState() = default;
    ~SecretState() { explicit_bzero(&state, sizeof(state)); }
    SecretState(const SecretState&) = delete;
    SecretState& operator=(const SecretState&) = delete;

    State state;
};

using ChainingValue = SecretBytes<maxDigestLength>;
using KeyBlock = SecretBytes<blockSize>;

/// Absorbs a block, made from the key and the padding byte, and keeps the chaining value.
template <typename State>
bool keep(const KeyBlock& key, std::uint8_t padding, ChainingValue& kept) {
    KeyBlock block;
    std::ranges::transform(key, block.begin(), [padding](std::uint8_t byte) {
        return static_cast<std::uint8_t>(byte ^ padding);
    });
    SecretState<State> hash;
    if (!begin(hash.state) || !absorb(hash.state, block)) {
        return false;
    }
    std::memcpy(kept.data(), &hash.state, digestLength<State>);
    return true;
}

/// Continues after the block whose chaining value was kept.
template <typename State>
bool resume(State& state, const ChainingValue& kept) {
    if (!begin(state)) {
        return false;
    }
    std::memcpy(&state, kept.data(), digestLength<State>);
    state.Nl = blockSize * 8;
    return true;
}

/// A key longer than a block is replaced by its digest.
template <typename State>
bool fill(KeyBlock& block, Region key) {
    if (key.size() <= block.size()) {
        std::ranges::copy(key, block.begin());
        return true;
    }
    SecretState<State> hash;
    return begin(hash.state) && absorb(hash.state, key) && finish(hash.state, block.data());
}

template <typename State>
bool keepBoth(Region key, ChainingValue& inner, ChainingValue& outer) {
    KeyBlock block{};
    return fill<State>(block, key) && keep<State>(block, 0x36, inner) &&
           keep<State>(block, 0x5c, outer);
}

template <typename State>
std::size_t computeFrom(const ChainingValue& inner, const ChainingValue& outer,
                        std::span<const Region> regions,
                        std::span<std::uint8_t, maxDigestLength> out) {
    SecretState<State> hash;
    if (!resume(hash.state, inner)) {
        return 0;
    }
    for (const Region& region : regions) {
        if (!absorb(hash.state, region)) {
            return 0;
        }
    }
    SecretBytes<digestLength<State>> innerDigest;
    const bool done = finish(hash.state, innerDigest.data()) && resume(hash.state, outer) &&
                      absorb(hash.state, innerDigest) && finish(hash.state, out.data());
    return done ? digestLength<State> : 0;
}

/// Whether libcrypto's default provider computes the digest: then the calls above give the same
/// result by the same code. In FIPS mode another provider does, or none, and these calls must not
/// be used.
bool isOfDefaultProvider(const EVP_MD* type) {
    using Fetched = std::unique_ptr<EVP_MD, decltype(&EVP_MD_free)>;
    const Fetched fetched(EVP_MD_fetch(nullptr, EVP_MD_get0_name(type), nullptr), &EVP_MD_free);
    return fetched && std::string_view("default") ==
                          OSSL_PROVIDER_get0_name(EVP_MD_get0_provider(fetched.get()));
}

}  // namespace

std::unique_ptr<KeyedDigest> KeyedDigest::make(const EVP_MD* type, Region key) {
    const bool isSha1 = type == EVP_sha1();
    if ((!isSha1 && type != EVP_sha256()) || !isOfDefaultProvider(type)) {
        return nullptr;
    }
    // Null rather than an exception: a failure of HMAC costs a datagram, not the process.
    std::unique_ptr<KeyedDigest> made(new (std::nothrow)
                                          KeyedDigest(isSha1 ? Hash::sha1 : Hash::sha256));
    return made && made->setKey(key) ? std::move(made) : nullptr;
}

bool KeyedDigest::setKey(Region key) {
    return hash_ == Hash::sha1 ? keepBoth<SHA_CTX>(key, inner_, outer_)
                               : keepBoth<SHA256_CTX>(key, inner_, outer_);
}

std::size_t KeyedDigest::compute(std::span<const Region> regions,
                                 std::span<std::uint8_t, maxDigestLength> out) const {
    return hash_ == Hash::sha1 ? computeFrom<SHA_CTX>(inner_, outer_, regions, out)
                               : computeFrom<SHA256_CTX>(inner_, outer_, regions, out);
}

}  // namespace vesk
