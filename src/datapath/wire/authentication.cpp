#include "datapath/wire/authentication.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <array>

#include "base/secret_bytes.h"

namespace vesk {

namespace {

using Region = std::span<const std::uint8_t>;

bool isAllZero(std::span<const std::uint8_t> bytes) {
    return std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte == 0; });
}

/// The HMAC by libcrypto's HMAC calls, with a keyed context. Returns its length; 0 if libcrypto
/// fails.
std::size_t computeByContext(HMAC_CTX& context, std::span<const Region> regions,
                             std::span<std::uint8_t, EVP_MAX_MD_SIZE> out) {
    if (HMAC_Init_ex(&context, nullptr, 0, nullptr, nullptr) != 1) {
        return 0;
    }
    for (const Region& region : regions) {
        if (!region.empty() && HMAC_Update(&context, region.data(), region.size()) != 1) {
            return 0;
        }
    }
    unsigned int length = 0;
    return HMAC_Final(&context, out.data(), &length) == 1 ? length : 0;
}

/// The regions that the HMAC of a framed datagram covers, in order; never the HMAC field itself.
std::array<Region, 2> coveredRegions(const FramingDescriptor& framing, ConstDatagramBuffer buffer,
                                     std::size_t headerLength, std::size_t length) {
    const Region datagram = buffer.first(length);
    const std::size_t signedFrom = framing.hmacOffset + framing.hmacLength;
    if (framing.headerLengthSize == 0) {
        return {datagram.subspan(signedFrom), Region()};
    }
    return {datagram.subspan(headerLength),
            datagram.subspan(signedFrom, headerLength - signedFrom)};
}

}  // namespace

bool computeTag(HmacKey& hmacKey, std::span<const Region> regions, std::span<std::uint8_t> tag) {
    std::ranges::fill(tag, std::uint8_t{0});
    if (!hmacKey.hasKey()) {
        return true;
    }
    if (!hmacKey.prepare()) {
        return false;
    }
    SecretBytes<EVP_MAX_MD_SIZE> digest;
    const std::size_t length =
        hmacKey.states
            ? hmacKey.states->compute(regions, std::span(digest).first<maxDigestLength>())
            : computeByContext(*hmacKey.context, regions, digest);
    std::copy_n(digest.begin(), std::min(length, tag.size()), tag.begin());
    return length != 0;
}

bool checkTag(HmacKey& hmacKey, std::span<const Region> regions,
              std::span<const std::uint8_t> tag) {
    if (!hmacKey.hasKey()) {
        return isAllZero(tag);
    }
    SecretBytes<maxHmacFieldLength> expected;
    const auto computed = std::span(expected).first(tag.size());
    return computeTag(hmacKey, regions, computed) &&
           CRYPTO_memcmp(computed.data(), tag.data(), tag.size()) == 0;
}

bool signDatagram(const FramingDescriptor& framing, DatagramBuffer buffer, std::size_t headerLength,
                  std::size_t length, HmacKey& hmacKey) {
    const auto regions = coveredRegions(framing, buffer, headerLength, length);
    return computeTag(hmacKey, regions, buffer.subspan(framing.hmacOffset, framing.hmacLength));
}

bool checkDatagram(const FramingDescriptor& framing, ConstDatagramBuffer buffer,
                   std::size_t headerLength, std::size_t length, HmacKey& hmacKey) {
    const auto regions = coveredRegions(framing, buffer, headerLength, length);
    return checkTag(hmacKey, regions, buffer.subspan(framing.hmacOffset, framing.hmacLength));
}

}  // namespace vesk
