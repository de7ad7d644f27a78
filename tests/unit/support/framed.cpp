#include "support/framed.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>

namespace vesk {

namespace {

void appendBigEndian(Bytes& bytes, std::uint32_t value, int width) {
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

}  // namespace

Bytes toBytes(std::string_view text) {
    return {text.begin(), text.end()};
}

std::string toHex(const Bytes& bytes) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

Bytes hmacOf(const TestKey& key, const Bytes& data, std::size_t length) {
    if (key.bytes.empty()) {
        return Bytes(length);
    }
    std::array<std::uint8_t, EVP_MAX_MD_SIZE> digest{};
    unsigned int digestLength = 0;
    HMAC(key.digest == "sha1" ? EVP_sha1() : EVP_sha256(), key.bytes.data(),
         static_cast<int>(key.bytes.size()), data.data(), data.size(), digest.data(),
         &digestLength);
    Bytes result(digest.begin(), digest.begin() + digestLength);
    result.resize(length);
    return result;
}

Bytes framedV2(std::uint32_t label, const Bytes& payload, const TestKey& key) {
    Bytes covered;
    appendBigEndian(covered, label, 4);
    covered = join({covered, payload});
    return join({hmacOf(key, covered, 16), covered});
}

Bytes framedV1(std::uint32_t label, const Bytes& payload, const TestKey& key,
               const Bytes& furtherHeader) {
    Bytes header;
    appendBigEndian(header, static_cast<std::uint32_t>(38 + furtherHeader.size()), 2);
    appendBigEndian(header, label, 4);
    header = join({header, furtherHeader});
    return join({hmacOf(key, join({payload, header}), 32), header, payload});
}

Bytes lateralHeader(std::uint8_t type, std::span<const std::uint8_t> address, const TestKey& key) {
    const Bytes covered =
        join({{static_cast<std::uint8_t>(address.size() + 16)}, toBytes(address)});
    return join({{type}, covered, hmacOf(key, covered, 16)});
}

Bytes join(std::initializer_list<Bytes> parts) {
    Bytes whole;
    for (const Bytes& part : parts) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

}  // namespace vesk
