#include "support/reference.h"

#include <openssl/evp.h>
#include <openssl/params.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <string>

#include "support/require.h"

namespace vesk::fuzz {

namespace {

Bytes countedKey(std::size_t length, std::uint8_t first) {
    Bytes bytes(length);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

std::size_t tagLength(int version) {
    return version == 1 ? 32 : 16;
}

std::size_t labelOffset(int version) {
    return version == 1 ? 34 : 16;
}

using MacContext = std::unique_ptr<EVP_MAC_CTX, decltype(&EVP_MAC_CTX_free)>;

/// A new context each time: nothing of one datagram may reach the next.
MacContext keyedContext(const Key& key) {
    static EVP_MAC* const hmac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    MacContext context(EVP_MAC_CTX_new(hmac), &EVP_MAC_CTX_free);
    std::string digest = key.algorithm;
    const std::array<OSSL_PARAM, 2> parameters{
        OSSL_PARAM_construct_utf8_string("digest", digest.data(), 0), OSSL_PARAM_construct_end()};
    require(EVP_MAC_init(context.get(), key.bytes.data(), key.bytes.size(), parameters.data()) == 1,
            "libcrypto takes the key");
    return context;
}

}  // namespace

const std::array<Key, 3>& someKeys() {
    static const std::array<Key, 3> keys{
        {{"sha1", {}}, {"sha1", countedKey(20, 1)}, {"sha256", countedKey(100, 101)}}};
    return keys;
}

std::optional<Framed> readFramed(int version, View datagram) {
    const std::size_t shortest = version == 1 ? 38 : 20;
    if (datagram.size() < shortest) {
        return std::nullopt;
    }
    const std::size_t headerLength =
        version == 1 ? std::size_t{datagram[32]} * 256 + datagram[33] : std::size_t{20};
    if (version == 1 && (headerLength < 38 || headerLength > datagram.size() - 1)) {
        return std::nullopt;
    }
    const View at = datagram.subspan(labelOffset(version), 4);
    const std::uint32_t label = std::uint32_t{at[0]} * 0x1000000U +
                                std::uint32_t{at[1]} * 0x10000U + std::uint32_t{at[2]} * 0x100U +
                                at[3];
    return Framed{label, headerLength};
}

Bytes framedTag(int version, View datagram, const Key& key) {
    if (version == 2) {
        return tagOver(datagram.subspan(16), key, 16);
    }
    // The payload first, then the header without its HMAC.
    const std::size_t headerLength = readFramed(1, datagram).value().headerLength;
    const View header = datagram.first(headerLength).subspan(32);
    return tagOver(joined(datagram.subspan(headerLength), header), key, 32);
}

Bytes relabelled(int version, View datagram, std::uint32_t label) {
    Bytes bytes = toBytes(datagram);
    for (std::size_t i = 0; i < 4; ++i) {
        bytes.at(labelOffset(version) + i) = static_cast<std::uint8_t>(label >> (24 - 8 * i));
    }
    return bytes;
}

Bytes signedWith(int version, View datagram, const Key& key) {
    const Bytes tag = framedTag(version, datagram, key);
    require(tag.size() == tagLength(version), "the tag is as long as its field");
    return joined(tag, datagram.subspan(tag.size()));
}

Bytes tagOver(View bytes, const Key& key, std::size_t length) {
    Bytes tag(EVP_MAX_MD_SIZE, 0);
    if (!key.bytes.empty()) {
        MacContext context = keyedContext(key);
        std::size_t digestLength = 0;
        require(EVP_MAC_update(context.get(), bytes.data(), bytes.size()) == 1 &&
                    EVP_MAC_final(context.get(), tag.data(), &digestLength, tag.size()) == 1,
                "libcrypto makes an HMAC");
    }
    tag.resize(length);
    return tag;
}

Bytes joined(View first, View second) {
    Bytes bytes = toBytes(first);
    bytes.insert(bytes.end(), second.begin(), second.end());
    return bytes;
}

Bytes toBytes(View bytes) {
    return {bytes.begin(), bytes.end()};
}

bool same(View left, View right) {
    return std::ranges::equal(left, right);
}

}  // namespace vesk::fuzz
