#include "control/crypto_provider.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/provider.h>
#include <openssl/rand.h>

#include <array>
#include <cstdlib>

#include "datapath/wire/authentication.h"
#include "flow/hmac_info.h"
#include "log/log.h"

namespace vesk {

namespace {

bool isAvailable(const char* provider) {
    return OSSL_PROVIDER_available(nullptr, provider) == 1;
}

/// Only the presence of the variables matters, not their values.
// NOLINTBEGIN(concurrency-mt-unsafe): no other thread runs yet.
bool isFipsRequired() {
    return std::getenv("__TORLEXA_OPENSSL_FIPS") != nullptr ||
           std::getenv("__MIRVOX_OPENSSL_FIPS") != nullptr;
}
// NOLINTEND(concurrency-mt-unsafe)

bool activateFips() {
    return EVP_default_properties_enable_fips(nullptr, 1) == 1 &&
           RAND_set_seed_source_type(nullptr, "JITTER", "provider=qorng") == 1;
}

void report(int* fipsActive, int value) {
    if (fipsActive != nullptr) {
        *fipsActive = value;
    }
}

}  // namespace

void loadDigests() {
    constexpr std::array<std::uint8_t, 1> key{1};
    for (const HmacAlgorithm* const algorithm : {&hmacSha1, &hmacSha256}) {
        HmacInfo throwaway;
        throwaway.setKey(key);
        throwaway.setAlgorithm(*algorithm);
        std::array<std::uint8_t, 16> tag{};
        // The result is ignored: if the library refuses a digest, each datagram that needs it
        // fails.
        static_cast<void>(computeTag(throwaway, {}, tag));
    }
}

bool initFipsMode(int* fipsActive) {
    const bool fipsAvailable = isAvailable("fips");
    if (fipsAvailable && EVP_default_properties_is_fips_enabled(nullptr) == 1 &&
        isAvailable("qorng")) {
        logInfo("Initial OpenSSL FIPS mode is active.");
        report(fipsActive, 1);
        return true;
    }
    logInfo("Initial OpenSSL FIPS mode is inactive.");
    if (!isFipsRequired()) {
        logInfo("OpenSSL FIPS mode activation is not required.");
        report(fipsActive, 0);
        return true;
    }
    logInfo("OpenSSL FIPS mode activation is required.");
    if (fipsAvailable && activateFips()) {
        logInfo("OpenSSL FIPS mode has been activated.");
        report(fipsActive, 1);
        return true;
    }
    logError("Failed to activate OpenSSL FIPS mode: ", ERR_error_string(ERR_get_error(), nullptr));
    return false;
}

}  // namespace vesk
