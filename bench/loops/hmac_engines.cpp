#include "loops/hmac_engines.h"

#include <openssl/evp.h>

#include <array>
#include <stdexcept>

namespace vesk::bench {
namespace {

constexpr std::size_t blockSize = 64;  // of both digests

unsigned char* bytes(DigestBuffer out) {
    return reinterpret_cast<unsigned char*>(out.data());
}

// Common names for the two hash functions, so that the HMAC is implemented once.
void begin(SHA_CTX& state) {
    SHA1_Init(&state);
}
void begin(SHA256_CTX& state) {
    SHA256_Init(&state);
}
void absorb(SHA_CTX& state, const void* data, std::size_t size) {
    SHA1_Update(&state, data, size);
}
void absorb(SHA256_CTX& state, const void* data, std::size_t size) {
    SHA256_Update(&state, data, size);
}
std::size_t finish(SHA_CTX& state, DigestBuffer out) {
    SHA1_Final(bytes(out), &state);
    return SHA_DIGEST_LENGTH;
}
std::size_t finish(SHA256_CTX& state, DigestBuffer out) {
    SHA256_Final(bytes(out), &state);
    return SHA256_DIGEST_LENGTH;
}

template <typename State>
State stateAfterPaddedKey(const HmacKey& key, std::byte padding) {
    std::array<std::byte, blockSize> block{};
    if (key.bytes.size() > block.size()) {
        throw std::invalid_argument("a key longer than a block would have to be hashed first");
    }
    std::copy(key.bytes.begin(), key.bytes.end(), block.begin());
    for (std::byte& byte : block) {
        byte ^= padding;
    }
    State state;
    begin(state);
    absorb(state, block.data(), block.size());
    return state;
}

template <typename States>
States padded(const HmacKey& key) {
    return {stateAfterPaddedKey<decltype(States::inner)>(key, std::byte{0x36}),
            stateAfterPaddedKey<decltype(States::outer)>(key, std::byte{0x5c})};
}

template <typename States>
std::size_t digestFrom(const States& states, const HashedRanges& ranges, DigestBuffer out) {
    auto state = states.inner;
    for (const auto& range : ranges) {
        absorb(state, range.data(), range.size());
    }
    const std::size_t length = finish(state, out);
    state = states.outer;
    absorb(state, out.data(), length);
    return finish(state, out);
}

}  // namespace

void CachedHmac::ContextDeleter::operator()(HMAC_CTX* context) const {
    HMAC_CTX_free(context);
}

std::size_t CachedHmac::digest(const HashedRanges& ranges, DigestBuffer out) {
    if (key_.bytes.empty()) {
        return 0;
    }
    if (context_) {
        HMAC_Init_ex(context_.get(), nullptr, 0, nullptr, nullptr);
    } else {
        context_.reset(HMAC_CTX_new());
        const EVP_MD* type = key_.algorithm == Algorithm::sha1 ? EVP_sha1() : EVP_sha256();
        HMAC_Init_ex(context_.get(), key_.bytes.data(), static_cast<int>(key_.bytes.size()), type,
                     nullptr);
    }
    for (const auto& range : ranges) {
        if (!range.empty()) {
            HMAC_Update(context_.get(), reinterpret_cast<const unsigned char*>(range.data()),
                        range.size());
        }
    }
    unsigned int length = 0;
    HMAC_Final(context_.get(), bytes(out), &length);
    return length;
}

PrecomputedHmac::PrecomputedHmac(const HmacKey& key) {
    if (key.algorithm == Algorithm::sha1) {
        states_ = padded<Sha1States>(key);
    } else if (key.algorithm == Algorithm::sha256) {
        states_ = padded<Sha256States>(key);
    }
}

std::size_t PrecomputedHmac::digest(const HashedRanges& ranges, DigestBuffer out) const {
    if (const auto* sha256 = std::get_if<Sha256States>(&states_)) {
        return digestFrom(*sha256, ranges, out);
    }
    if (const auto* sha1 = std::get_if<Sha1States>(&states_)) {
        return digestFrom(*sha1, ranges, out);
    }
    return 0;
}

}  // namespace vesk::bench
