#include "datapath/wire/authentication.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <array>

#include "base/secret_bytes.h"
#include "log/log.h"

namespace vesk {

namespace {

using Region = std::span<const std::uint8_t>;

bool isAllZero(std::span<const std::uint8_t> bytes) {
    return std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte == 0; });
}

/// Prepares the key's context for a new digest: keys a new context, resets a kept one.
bool beginDigest(HmacKey& hmacKey) {
    if (hmacKey.context) {
        return HMAC_Init_ex(hmacKey.context.get(), nullptr, 0, nullptr, nullptr) == 1;
    }
    hmacKey.context.reset(HMAC_CTX_new());
    if (!hmacKey.context) {
        logWarn("Failed to create an HMAC context");
        return false;
    }
    if (HMAC_Init_ex(hmacKey.context.get(), hmacKey.key.data(), static_cast<int>(hmacKey.keyLen),
                     hmacKey.digest(), nullptr) != 1) {
        // Released, so that the next datagram does not use a context without a key.
        hmacKey.context.reset();
        return false;
    }
    return true;
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
    if (!beginDigest(hmacKey)) {
        return false;
    }
    for (const Region& region : regions) {
        if (!region.empty() &&
            HMAC_Update(hmacKey.context.get(), region.data(), region.size()) != 1) {
            return false;
        }
    }
    SecretBytes<EVP_MAX_MD_SIZE> digest;
    unsigned int digestLength = 0;
    if (HMAC_Final(hmacKey.context.get(), digest.data(), &digestLength) != 1) {
        return false;
    }
    std::copy_n(digest.begin(), std::min<std::size_t>(digestLength, tag.size()), tag.begin());
    return true;
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
