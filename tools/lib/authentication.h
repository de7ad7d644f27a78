// Signs and checks the HMAC field of a framed datagram. The class that computes the digest is a
// template parameter, since the bench programs use libcrypto in different ways.
#pragma once

#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include "lib/framing.h"

namespace vesk::bench {

enum class Algorithm { none, sha1, sha256 };

/// "none", "sha1", "sha256"; throws std::invalid_argument for anything else.
Algorithm algorithmByName(std::string_view name);
std::string_view algorithmName(Algorithm algorithm);

struct HmacKey {
    Algorithm algorithm = Algorithm::none;
    std::vector<std::byte> bytes;
};

inline constexpr std::size_t maxDigestSize = 64;
using DigestBuffer = std::span<std::byte, maxDigestSize>;
using HashedRanges = std::array<std::span<const std::byte>, 2>;

/// digest() returns the digest's length, or 0 if there is no key.
template <typename T>
concept HmacEngine = requires(T engine, const HashedRanges& ranges, DigestBuffer out) {
    { engine.digest(ranges, out) } -> std::same_as<std::size_t>;
};

/// Uses libcrypto's one-call HMAC, which is slow but simple. The traffic generator checks the
/// forwarder's signatures with it.
class OneCallHmac {
 public:
    explicit OneCallHmac(const HmacKey& key) : key_(key) {}
    std::size_t digest(const HashedRanges& ranges, DigestBuffer out) const;

 private:
    const HmacKey& key_;
};

/// Fills `field` with the digest, cut or padded with zeros to its length; with zeros if there is no
/// key.
template <HmacEngine Engine>
void computeHmacField(Engine& engine, const HashedRanges& ranges, std::span<std::byte> field) {
    std::array<std::byte, maxDigestSize> digest;
    const std::size_t length = std::min(engine.digest(ranges, digest), field.size());
    const auto tail = std::copy_n(digest.begin(), length, field.begin());
    std::fill(tail, field.end(), std::byte{0});
}

template <HmacEngine Engine>
void signDatagram(Engine& engine, const FramingLayout& layout, std::span<std::byte> datagram,
                  std::size_t payloadOffset) {
    computeHmacField(engine, authenticatedRanges(layout, datagram, payloadOffset),
                     datagram.first(layout.hmacLength));
}

template <HmacEngine Engine>
bool checkDatagram(Engine& engine, const FramingLayout& layout, std::span<const std::byte> datagram,
                   std::size_t payloadOffset) {
    std::array<std::byte, udpV1.hmacLength> expected;
    const auto field = std::span(expected).first(layout.hmacLength);
    computeHmacField(engine, authenticatedRanges(layout, datagram, payloadOffset), field);
    return CRYPTO_memcmp(field.data(), datagram.data(), field.size()) == 0;
}

}  // namespace vesk::bench
