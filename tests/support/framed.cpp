#include "support/framed.h"

#include <openssl/evp.h>
#include <openssl/params.h>

#include <array>
#include <memory>
#include <stdexcept>

namespace vesk {

namespace {

using View = std::span<const std::uint8_t>;

constexpr std::size_t hmacLengthOf(int version) {
    return version == 1 ? 32 : 16;
}

constexpr std::size_t labelOffsetOf(int version) {
    return version == 1 ? 34 : 16;
}

Bytes bigEndian(std::uint32_t value, int width) {
    Bytes bytes;
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<std::uint8_t>(value >> shift));
    }
    return bytes;
}

std::size_t numberAt(View bytes, std::size_t offset, std::size_t width) {
    std::size_t number = 0;
    for (const std::uint8_t byte : bytes.subspan(offset, width)) {
        number = number * 256 + byte;
    }
    return number;
}

using MacContext = std::unique_ptr<EVP_MAC_CTX, decltype(&EVP_MAC_CTX_free)>;

/// Uses a new context each time, so that no state passes from one datagram to the next.
MacContext keyedContext(const TestKey& key) {
    static EVP_MAC* const hmac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    MacContext context(EVP_MAC_CTX_new(hmac), &EVP_MAC_CTX_free);
    std::string digest = key.digest;
    const std::array<OSSL_PARAM, 2> parameters{
        OSSL_PARAM_construct_utf8_string("digest", digest.data(), 0), OSSL_PARAM_construct_end()};
    if (EVP_MAC_init(context.get(), key.bytes.data(), key.bytes.size(), parameters.data()) != 1) {
        throw std::runtime_error("libcrypto does not take the key");
    }
    return context;
}

}  // namespace

Bytes hmacOf(const TestKey& key, View data, std::size_t length) {
    Bytes digest(EVP_MAX_MD_SIZE, 0);
    if (!key.bytes.empty()) {
        const MacContext context = keyedContext(key);
        std::size_t digestLength = 0;
        if (EVP_MAC_update(context.get(), data.data(), data.size()) != 1 ||
            EVP_MAC_final(context.get(), digest.data(), &digestLength, digest.size()) != 1) {
            throw std::runtime_error("libcrypto makes no HMAC");
        }
    }
    digest.resize(length);
    return digest;
}

Bytes framedV2(std::uint32_t label, View payload, const TestKey& key) {
    const Bytes covered = join({bigEndian(label, 4), payload});
    return join({hmacOf(key, covered, hmacLengthOf(2)), covered});
}

Bytes framedV1(std::uint32_t label, View payload, const TestKey& key, View furtherHeader) {
    const auto headerLength = static_cast<std::uint32_t>(38 + furtherHeader.size());
    const Bytes header = join({bigEndian(headerLength, 2), bigEndian(label, 4), furtherHeader});
    return join({hmacOf(key, join({payload, header}), hmacLengthOf(1)), header, payload});
}

Bytes framedDatagram(int version, std::uint32_t label, View payload, const TestKey& key) {
    return version == 1 ? framedV1(label, payload, key) : framedV2(label, payload, key);
}

std::optional<FramedHeader> readFramed(int version, View datagram) {
    const std::size_t shortest = version == 1 ? 38 : 20;
    if (datagram.size() < shortest) {
        return std::nullopt;
    }
    const std::size_t headerLength = version == 1 ? numberAt(datagram, 32, 2) : shortest;
    if (version == 1 && (headerLength < shortest || headerLength >= datagram.size())) {
        return std::nullopt;
    }
    const auto label = static_cast<std::uint32_t>(numberAt(datagram, labelOffsetOf(version), 4));
    return FramedHeader{label, headerLength};
}

Bytes relabelled(int version, View datagram, std::uint32_t label) {
    const std::size_t offset = labelOffsetOf(version);
    return join({datagram.first(offset), bigEndian(label, 4), datagram.subspan(offset + 4)});
}

Bytes signedWith(int version, View datagram, const TestKey& key) {
    const std::size_t hmacLength = hmacLengthOf(version);
    const View covered = datagram.subspan(hmacLength);
    if (version == 2) {
        return join({hmacOf(key, covered, hmacLength), covered});
    }
    // The payload first, then the header without its HMAC.
    const std::size_t headerLength = readFramed(1, datagram).value().length;
    const View header = covered.first(headerLength - hmacLength);
    const Bytes signedBytes = join({datagram.subspan(headerLength), header});
    return join({hmacOf(key, signedBytes, hmacLength), covered});
}

Bytes lateralHeader(std::uint8_t type, View address, const TestKey& key) {
    const Bytes length{static_cast<std::uint8_t>(address.size() + 16)};
    const Bytes covered = join({length, address});
    return join({Bytes{type}, covered, hmacOf(key, covered, 16)});
}

}  // namespace vesk
