#include "flow/hmac_info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <array>
#include <iomanip>
#include <sstream>
#include <string>

#include "datapath/wire/authentication.h"
#include "support/bytes.h"

namespace vesk {
namespace {

std::string textOf(const HmacInfo& info) {
    std::ostringstream text;
    text << info;
    return text.str();
}

HmacInfo keyed(const Bytes& key) {
    HmacInfo info;
    info.setKey(key);
    return info;
}

/// Uses the record, as the datapath does, so that it keeps something.
void use(HmacInfo& info) {
    std::array<std::uint8_t, 16> tag{};
    ASSERT_TRUE(computeTag(info, {}, tag));
}

bool keepsNothing(const HmacInfo& info) {
    return info.states == nullptr && info.context == nullptr;
}

/// How a record is made ready: with hash states, or with a context as in FIPS mode.
class PreparedHmacInfoTest : public testing::TestWithParam<bool (HmacKey::*)()> {
 protected:
    static void prepare(HmacInfo& info) {
        ASSERT_TRUE((info.*GetParam())());
        ASSERT_FALSE(keepsNothing(info));
    }
};

TEST(HmacInfoTest, HasNoKeyAndSha1ByDefault) {
    const HmacInfo info;
    EXPECT_EQ(info.keyLen, 0U);
    EXPECT_FALSE(info.hasKey());
    EXPECT_THAT(info.key, testing::Each(0));
    EXPECT_EQ(info.key.size(), 128U);
    EXPECT_EQ(info.algoName, "sha1");
    EXPECT_EQ(info.digest, &EVP_sha1);
    EXPECT_EQ(info.context, nullptr);
}

TEST(HmacInfoTest, MapsNamesToDigests) {
    EXPECT_EQ(hmacSha1.name, "sha1");
    EXPECT_EQ(hmacSha1.digest, &EVP_sha1);
    EXPECT_EQ(hmacSha256.name, "sha256");
    EXPECT_EQ(hmacSha256.digest, &EVP_sha256);
}

TEST(HmacInfoTest, KeepsTheOldBytesAfterAShorterKey) {
    HmacInfo info = keyed({1, 2, 3, 4});
    info.setKey(Bytes{9, 8});
    EXPECT_EQ(info.keyLen, 2U);
    EXPECT_TRUE(info.hasKey());
    EXPECT_THAT(Bytes(info.key.begin(), info.key.begin() + 5), testing::ElementsAre(9, 8, 3, 4, 0));
}

TEST(HmacInfoTest, AcceptsAKeyOfFullLength) {
    const HmacInfo info = keyed(Bytes(128, 0xab));
    EXPECT_EQ(info.keyLen, 128U);
    EXPECT_THAT(info.key, testing::Each(0xab));
}

TEST(HmacInfoTest, KeepsStatesAfterItsFirstUse) {
    HmacInfo info = keyed({1});
    EXPECT_TRUE(keepsNothing(info));
    use(info);
    EXPECT_NE(info.states, nullptr);
    EXPECT_EQ(info.context, nullptr);
}

TEST_P(PreparedHmacInfoTest, CopiesKeyAndAlgorithmOnly) {
    HmacInfo info = keyed({1, 2, 3});
    info.setAlgorithm(hmacSha256);
    prepare(info);
    HmacInfo assigned = keyed({7});
    prepare(assigned);
    assigned = info;
    const HmacInfo constructed(info);
    for (const HmacInfo* copy : std::array<const HmacInfo*, 2>{&assigned, &constructed}) {
        EXPECT_EQ(copy->keyLen, 3U);
        EXPECT_EQ(copy->key, info.key);
        EXPECT_EQ(copy->algoName, "sha256");
        EXPECT_EQ(copy->digest, &EVP_sha256);
        EXPECT_TRUE(keepsNothing(*copy));
    }
    EXPECT_FALSE(keepsNothing(info));
}

TEST_P(PreparedHmacInfoTest, IsUnchangedBySelfAssignment) {
    HmacInfo info = keyed({1, 2, 3});
    prepare(info);
    const HmacInfo& same = info;
    info = same;
    EXPECT_EQ(info.keyLen, 3U);
    EXPECT_FALSE(keepsNothing(info));
}

TEST_P(PreparedHmacInfoTest, KeepsNothingOfAnotherKeyOrAlgorithm) {
    HmacInfo other = keyed({4});
    HmacInfo info = keyed({1});
    prepare(info);
    info.setKey(Bytes{2});
    EXPECT_TRUE(keepsNothing(info));
    prepare(info);
    info.setAlgorithm(hmacSha256);
    EXPECT_TRUE(keepsNothing(info));
    prepare(info);
    info.copyKeyFrom(other);
    EXPECT_TRUE(keepsNothing(info));
    prepare(info);
    info.copyAlgorithmFrom(other);
    EXPECT_TRUE(keepsNothing(info));
}

INSTANTIATE_TEST_SUITE_P(BothWays, PreparedHmacInfoTest,
                         testing::Values(&HmacKey::prepare, &HmacKey::makeContext),
                         [](const auto& row) {
                             return row.index == 0 ? "WithStates" : "WithContext";
                         });

TEST(HmacInfoTest, CopiesOnlyTheKey) {
    HmacInfo from = keyed(Bytes(128, 5));
    from.setAlgorithm(hmacSha256);
    HmacInfo to;
    to.copyKeyFrom(from);
    EXPECT_EQ(to.keyLen, 128U);
    EXPECT_EQ(to.key, from.key);
    EXPECT_EQ(to.algoName, "sha1");
    EXPECT_EQ(to.digest, &EVP_sha1);
}

TEST(HmacInfoTest, CopiesOnlyTheAlgorithm) {
    HmacInfo from = keyed({5});
    from.setAlgorithm(hmacSha256);
    HmacInfo to;
    to.copyAlgorithmFrom(from);
    EXPECT_EQ(to.keyLen, 0U);
    EXPECT_THAT(to.key, testing::Each(0));
    EXPECT_EQ(to.algoName, "sha256");
    EXPECT_EQ(to.digest, &EVP_sha256);
}

TEST(HmacInfoTextTest, ShowsNoDataWithoutAKey) {
    EXPECT_EQ(textOf(HmacInfo()), "key: { size: 0 } algo: sha1 algofunc: 1 ctx: 0");
}

TEST(HmacInfoTextTest, ShowsTheKeyInHexadecimal) {
    HmacInfo info = keyed({0x00, 0x0a, 0xff});
    info.setAlgorithm(hmacSha256);
    EXPECT_EQ(textOf(info), "key: { size: 3 data: { 000aff } } algo: sha256 algofunc: 1 ctx: 0");
}

TEST(HmacInfoTextTest, ShowsAMissingDigest) {
    HmacInfo info;
    info.digest = nullptr;
    EXPECT_EQ(textOf(info), "key: { size: 0 } algo: sha1 algofunc: 0 ctx: 0");
}

TEST(HmacInfoTextTest, ShowsTheAddressOfTheContext) {
    HmacInfo info = keyed({1});
    ASSERT_TRUE(info.makeContext());
    std::ostringstream address;
    address << static_cast<const void*>(info.context.get());
    EXPECT_THAT(textOf(info), testing::EndsWith(" ctx: " + address.str()));
}

TEST(HmacInfoTextTest, LeavesTheFormatOfTheStreamUnchanged) {
    std::ostringstream text;
    text << std::hex << std::setfill('*') << keyed({16}) << std::setw(4) << 255;
    EXPECT_THAT(text.str(), testing::EndsWith("**ff"));
}

}  // namespace
}  // namespace vesk
