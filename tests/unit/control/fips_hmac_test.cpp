// How HMACs are computed in FIPS mode. Each test runs in its own process: a mode that is enabled in
// the library stays enabled.

#include <gtest/gtest.h>
#include <openssl/core_dispatch.h>
#include <openssl/provider.h>

#include <cstdlib>
#include <string_view>
#include <vector>

#include "control/crypto_provider.h"
#include "datapath/wire/authentication.h"
#include "flow/hmac_info.h"
#include "support/bytes.h"
#include "support/child_process.h"
#include "support/fips_provider.h"

namespace vesk {
namespace {

void enableFipsMode() {
    setenv("__TORLEXA_OPENSSL_FIPS", "", 1);
    int active = 0;
    if (OSSL_PROVIDER_load(nullptr, "fips") == nullptr || !initFipsMode(&active) || active != 1) {
        std::abort();
    }
}

void startFipsModeWithoutDigests() {
    addFipsProvider({});
    enableFipsMode();
}

/// The FIPS provider then offers the implementations of the default provider.
void startFipsMode() {
    addFipsProvider({OSSL_OP_DIGEST});
    enableFipsMode();
}

enum class Way { none, states, context, wrongTag };

/// Computes the HMAC of a known text with a record of this algorithm, and returns what it uses.
int wayOf(const HmacAlgorithm& algorithm, std::string_view expected) {
    HmacInfo key;
    key.setKey(Bytes(20, 0x0b));
    key.setAlgorithm(algorithm);
    const Bytes data = toBytes("Hi There");
    const std::vector<std::span<const std::uint8_t>> regions{data};
    Bytes tag(expected.size() / 2);
    Way way = Way::none;
    if (computeTag(key, regions, tag)) {
        way = key.states ? Way::states : Way::context;
        way = toHex(tag) == expected ? way : Way::wrongTag;
    }
    return static_cast<int>(way);
}

/// The same way for both algorithms, in a child process after `prepare`.
Way wayAfter(void (*prepare)()) {
    const ChildResult child = runInChild([prepare] {
        prepare();
        loadDigests();
        const int sha1 = wayOf(hmacSha1, "b617318655057264e28bc0b6fb378c8ef146be00");
        const int sha256 =
            wayOf(hmacSha256, "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
        return sha1 == sha256 ? sha1 : 100;
    });
    return static_cast<Way>(child.exitCode);
}

TEST(FipsHmacTest, IsComputedFromKeptStatesWithoutFipsMode) {
    EXPECT_EQ(wayAfter([] {}), Way::states);
}

TEST(FipsHmacTest, IsComputedByTheHmacCallsInFipsMode) {
    EXPECT_EQ(wayAfter(startFipsMode), Way::context);
}

TEST(FipsHmacTest, IsNotComputedInFipsModeWithoutItsDigests) {
    EXPECT_EQ(wayAfter(startFipsModeWithoutDigests), Way::none);
}

}  // namespace
}  // namespace vesk
