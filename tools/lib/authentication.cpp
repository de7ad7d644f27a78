#include "lib/authentication.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <stdexcept>
#include <string>

namespace vesk::bench {

Algorithm algorithmByName(std::string_view name) {
    for (const Algorithm algorithm : {Algorithm::none, Algorithm::sha1, Algorithm::sha256}) {
        if (name == algorithmName(algorithm)) {
            return algorithm;
        }
    }
    throw std::invalid_argument("unknown algorithm: " + std::string(name));
}

std::string_view algorithmName(Algorithm algorithm) {
    switch (algorithm) {
        case Algorithm::sha1:
            return "sha1";
        case Algorithm::sha256:
            return "sha256";
        case Algorithm::none:
            break;
    }
    return "none";
}

std::size_t OneCallHmac::digest(const HashedRanges& ranges, DigestBuffer out) const {
    if (key_.bytes.empty()) {
        return 0;
    }
    std::array<unsigned char, maxDatagramSize> text;
    std::size_t textLength = 0;
    for (const auto& range : ranges) {
        for (const std::byte byte : range) {
            text.at(textLength++) = std::to_integer<unsigned char>(byte);
        }
    }
    const EVP_MD* type = key_.algorithm == Algorithm::sha1 ? EVP_sha1() : EVP_sha256();
    unsigned int length = 0;
    if (HMAC(type, key_.bytes.data(), static_cast<int>(key_.bytes.size()), text.data(), textLength,
             reinterpret_cast<unsigned char*>(out.data()), &length) == nullptr) {
        throw std::runtime_error("libcrypto refused an HMAC");
    }
    return length;
}

}  // namespace vesk::bench
