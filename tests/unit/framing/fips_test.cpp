// The library in FIPS mode, where libcrypto's default provider does not compute the digests. A mode
// that is enabled stays enabled, so each test runs in a child process.
#include <gtest/gtest.h>
#include <openssl/core_dispatch.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include "framing/vector_agreement.h"
#include "support/child_process.h"
#include "support/fips_provider.h"
#include "support/library_key.h"

namespace vesk {
namespace {

void enterFipsMode() {
    EXPECT_NE(OSSL_PROVIDER_load(nullptr, "fips"), nullptr);
    EXPECT_EQ(EVP_default_properties_enable_fips(nullptr, 1), 1);
}

vesk_framing_result keyResult(vesk_framing_digest digest) {
    const Bytes bytes(20, 0x0b);
    vesk_framing_key* key = nullptr;
    const auto result = vesk_framing_key_new(digest, bytes.data(), bytes.size(), &key);
    vesk_framing_key_free(key);
    return result;
}

TEST(FramingFipsTest, AgreesWithTheVectors) {
    checkInChild([] {
        addFipsProvider({OSSL_OP_DIGEST, OSSL_OP_MAC});
        enterFipsMode();
        for (const DatagramVector& vector : datagramVectors()) {
            EXPECT_TRUE(libraryAgrees(vector)) << vector.id;
        }
        for (const RelabelVector& vector : relabelVectors()) {
            EXPECT_TRUE(libraryAgrees(vector)) << vector.id;
        }
        for (const Refusal& refusal : refusals("datagram")) {
            EXPECT_EQ(libraryReason(refusal), refusal.reason) << refusal.id;
        }
    });
}

/// Proves too that the kept hash states, which bypass providers, are not used in the test above.
TEST(FramingFipsTest, MakesNoKeyWithoutTheHmacOfTheProvider) {
    checkInChild([] {
        addFipsProvider({OSSL_OP_DIGEST});
        enterFipsMode();
        EXPECT_EQ(keyResult(VESK_FRAMING_SHA256), VESK_FRAMING_CRYPTO);
        EXPECT_EQ(keyResult(VESK_FRAMING_SHA1), VESK_FRAMING_CRYPTO);
    });
}

TEST(FramingFipsTest, MakesNoKeyWithoutTheDigestsOfTheProvider) {
    checkInChild([] {
        addFipsProvider({OSSL_OP_MAC});
        enterFipsMode();
        EXPECT_EQ(keyResult(VESK_FRAMING_SHA256), VESK_FRAMING_CRYPTO);
    });
}

TEST(FramingFipsTest, AnEmptyKeyNeedsNoProvider) {
    checkInChild([] {
        addFipsProvider({});
        enterFipsMode();
        EXPECT_NE(libraryKey({}), nullptr);
    });
}

}  // namespace
}  // namespace vesk
