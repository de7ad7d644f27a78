// Each test runs in its own process: a mode that is enabled in the library stays enabled.

#include "control/crypto_provider.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/core.h>
#include <openssl/evp.h>
#include <openssl/provider.h>
#include <openssl/rand.h>

#include <array>
#include <cstdlib>
#include <functional>
#include <string>

#include "support/child_process.h"
#include "support/printed.h"

namespace vesk {
namespace {

const char* const primaryVariable = "__TORLEXA_OPENSSL_FIPS";
const char* const secondaryVariable = "__MIRVOX_OPENSSL_FIPS";

const std::string inactive = "info Initial OpenSSL FIPS mode is inactive.\n";
const std::string notRequired = "info OpenSSL FIPS mode activation is not required.\n";
const std::string required = "info OpenSSL FIPS mode activation is required.\n";
const std::string activated = "info OpenSSL FIPS mode has been activated.\n";
const std::string initiallyActive = "info Initial OpenSSL FIPS mode is active.\n";

/// A provider that exists and offers no algorithms.
int initEmptyProvider(const OSSL_CORE_HANDLE*, const OSSL_DISPATCH*, const OSSL_DISPATCH** out,
                      void** context) {
    static const std::array<OSSL_DISPATCH, 1> nothing{};
    *out = nothing.data();
    *context = nullptr;
    return 1;
}

/// Makes a provider of this name available, as the configuration of a host would.
void provide(const char* name) {
    OSSL_PROVIDER_add_builtin(nullptr, name, initEmptyProvider);
    if (OSSL_PROVIDER_load(nullptr, "default") == nullptr ||
        OSSL_PROVIDER_load(nullptr, name) == nullptr) {
        std::abort();
    }
}

constexpr int untouched = 77;
constexpr int failed = 100;

class CryptoProviderTest : public testing::Test {
 protected:
    void SetUp() override {
        if (OSSL_PROVIDER_available(nullptr, "fips") == 1) {
            GTEST_SKIP() << "this host's libcrypto has a FIPS provider";
        }
    }

    /// Prepares a child process and calls initFipsMode() there. The exit code is the flag
    /// afterwards, plus `failed` if the call failed.
    static ChildResult initAfter(const std::function<void()>& prepare) {
        return runInChild([&] {
            unsetenv(primaryVariable);
            unsetenv(secondaryVariable);
            prepare();
            int active = untouched;
            const bool succeeded = initFipsMode(&active);
            return active + (succeeded ? 0 : failed);
        });
    }
};

TEST_F(CryptoProviderTest, IsNotRequiredByDefault) {
    const ChildResult child = initAfter([] {});
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.printed, inactive + notRequired);
}

TEST_F(CryptoProviderTest, WorksWithoutTheFlag) {
    const ChildResult child = runInChild([] {
        unsetenv(primaryVariable);
        unsetenv(secondaryVariable);
        return initFipsMode() ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0);
}

TEST_F(CryptoProviderTest, FailsWhenRequiredButMissing) {
    for (const char* variable : {primaryVariable, secondaryVariable}) {
        for (const char* value : {"", "0", "1"}) {
            const ChildResult child = initAfter([&] { setenv(variable, value, 1); });
            EXPECT_EQ(child.exitCode, untouched + failed);
            EXPECT_THAT(child.printed, testing::StartsWith(inactive + required +
                                                           "error Failed to activate OpenSSL FIPS "
                                                           "mode: error:"));
        }
    }
}

TEST_F(CryptoProviderTest, IsActivatedWhenRequired) {
    for (const char* variable : {primaryVariable, secondaryVariable}) {
        const ChildResult child = initAfter([&] {
            setenv(variable, "", 1);
            provide("fips");
        });
        EXPECT_EQ(child.exitCode, 1);
        EXPECT_EQ(child.printed, inactive + required + activated);
    }
}

TEST_F(CryptoProviderTest, StaysInactiveWhenNotRequired) {
    const ChildResult child = initAfter([] { provide("fips"); });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.printed, inactive + notRequired);
}

TEST_F(CryptoProviderTest, ReportsThatItIsAlreadyActive) {
    const ChildResult child = initAfter([] {
        setenv(primaryVariable, "", 1);
        provide("fips");
        provide("qorng");
        EVP_default_properties_enable_fips(nullptr, 1);
    });
    EXPECT_EQ(child.exitCode, 1);
    EXPECT_EQ(child.printed, initiallyActive);
}

TEST_F(CryptoProviderTest, IsActivatedAgainWithoutItsRandomNumberProvider) {
    const ChildResult child = initAfter([] {
        setenv(primaryVariable, "", 1);
        provide("fips");
        EVP_default_properties_enable_fips(nullptr, 1);
    });
    EXPECT_EQ(child.exitCode, 1);
    EXPECT_EQ(child.printed, inactive + required + activated);
}

TEST_F(CryptoProviderTest, FailsWhenTheSeedSourceCanNoLongerBeChanged) {
    const ChildResult child = initAfter([] {
        setenv(primaryVariable, "", 1);
        provide("fips");
        // The source of random numbers is fixed once the first byte is drawn.
        unsigned char byte = 0;
        RAND_bytes(&byte, 1);
    });
    EXPECT_EQ(child.exitCode, untouched + failed);
    EXPECT_THAT(child.printed, testing::MatchesRegex(inactive + required +
                                                     "error Failed to activate OpenSSL FIPS mode: "
                                                     "error:[0-9A-F]*[1-9A-F][0-9A-F]*:.*\n"));
}

TEST_F(CryptoProviderTest, IsActivatedAtEveryLogLevel) {
    const ChildResult child = initAfter([] {
        setenv(primaryVariable, "", 1);
        provide("fips");
        static const AtLogLevel level("error");
    });
    EXPECT_EQ(child.exitCode, 1);
    EXPECT_EQ(child.printed, "");
}

TEST(LoadDigestsTest, PrintsNothing) {
    const ChildResult child = runInChild([] {
        loadDigests();
        return 0;
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.printed, "");
}

}  // namespace
}  // namespace vesk
