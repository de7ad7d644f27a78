#include "datapath/wire/keyed_digest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <array>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "datapath/wire/authentication.h"
#include "flow/hmac_info.h"
#include "support/framed.h"
#include "support/object_room.h"

namespace vesk {
namespace {

using Region = std::span<const std::uint8_t>;

std::string digestOf(const KeyedDigest& keyed, const std::vector<Region>& regions) {
    std::array<std::uint8_t, maxDigestLength> out{};
    const std::size_t length = keyed.compute(regions, out);
    return toHex(std::span(out).first(length));
}

struct PublishedVector {
    const char* name;
    const EVP_MD* (*digest)();
    Bytes key;
    const char* data;
    const char* hmac;
};

const char* const longKeyText = "Test Using Larger Than Block-Size Key - Hash Key First";

// RFC 2202 and RFC 4231, as far as authentication_test.cpp does not have them: keys longer than a
// block, and data longer than one.
const std::vector<PublishedVector> publishedVectors{
    {"Sha1Case5", EVP_sha1, Bytes(20, 0x0c), "Test With Truncation",
     "4c1a03424b55e07fe7f27be1d58bb9324a9a5a04"},
    {"Sha1Case6", EVP_sha1, Bytes(80, 0xaa), longKeyText,
     "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
    {"Sha1Case7", EVP_sha1, Bytes(80, 0xaa),
     "Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data",
     "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"},
    {"Sha256Case5", EVP_sha256, Bytes(20, 0x0c), "Test With Truncation",
     "a3b6167473100ee06e0c796c2955552b"},
    {"Sha256Case6", EVP_sha256, Bytes(131, 0xaa), longKeyText,
     "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
    {"Sha256Case7", EVP_sha256, Bytes(131, 0xaa),
     "This is a test using a larger than block-size key and a larger than block-size data. "
     "The key needs to be hashed before being used by the HMAC algorithm.",
     "9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2"},
};

class PublishedVectorTest : public testing::TestWithParam<PublishedVector> {};

TEST_P(PublishedVectorTest, IsComputed) {
    const auto keyed = KeyedDigest::make(GetParam().digest(), GetParam().key);
    ASSERT_NE(keyed, nullptr);
    EXPECT_THAT(digestOf(*keyed, {toBytes(GetParam().data)}), testing::StartsWith(GetParam().hmac));
}

INSTANTIATE_TEST_SUITE_P(Rfc, PublishedVectorTest, testing::ValuesIn(publishedVectors),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(KeyedDigestTest, IsMadeForSha1AndSha256Only) {
    const Bytes key{1};
    EXPECT_NE(KeyedDigest::make(EVP_sha1(), key), nullptr);
    EXPECT_NE(KeyedDigest::make(EVP_sha256(), key), nullptr);
    EXPECT_EQ(KeyedDigest::make(EVP_sha224(), key), nullptr);
    EXPECT_EQ(KeyedDigest::make(EVP_sha512(), key), nullptr);
    EXPECT_EQ(KeyedDigest::make(nullptr, key), nullptr);
}

TEST(KeyedDigestTest, ReturnsTheLengthOfTheDigest) {
    std::array<std::uint8_t, maxDigestLength> out{};
    EXPECT_EQ(KeyedDigest::make(EVP_sha1(), Bytes{1})->compute({}, out), 20U);
    EXPECT_EQ(KeyedDigest::make(EVP_sha256(), Bytes{1})->compute({}, out), 32U);
}

TEST(KeyedDigestTest, IsWipedOnDestruction) {
    for (const EVP_MD* const type : {EVP_sha1(), EVP_sha256()}) {
        const auto keyed = KeyedDigest::make(type, Bytes(20, 0x0b));
        ASSERT_NE(keyed, nullptr);
        Room<KeyedDigest> room;
        KeyedDigest& copy = room.make(*keyed);
        const Bytes alive = room.contents();
        const Bytes inner(alive.begin(), alive.begin() + 20);
        const Bytes outer(alive.begin() + maxDigestLength, alive.begin() + maxDigestLength + 20);
        EXPECT_THAT(inner, testing::Not(testing::Each(0)));
        EXPECT_THAT(outer, testing::Not(testing::Each(0)));
        std::destroy_at(&copy);
        const Bytes dead = room.contents();
        EXPECT_THAT(Bytes(dead.begin(), dead.begin() + 2 * maxDigestLength), testing::Each(0));
    }
}

TEST(KeyedDigestTest, ServesSeveralThreadsAtOnce) {
    const TestKey key{"sha256", Bytes(20, 0x0b)};
    const auto keyed = KeyedDigest::make(EVP_sha256(), key.bytes);
    std::vector<std::thread> threads;
    for (std::uint8_t content = 0; content < 3; ++content) {
        threads.emplace_back([&keyed, &key, content] {
            const Bytes data(100, content);
            const std::string expected = toHex(hmacOf(key, data, 32));
            for (int i = 0; i < 1000; ++i) {
                ASSERT_EQ(digestOf(*keyed, {data}), expected);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

/// Keys, data and their division into regions, the same in each run.
class RandomInput {
 public:
    Bytes bytes(std::size_t length) {
        Bytes made(length);
        for (std::uint8_t& byte : made) {
            byte = static_cast<std::uint8_t>(random_());
        }
        return made;
    }

    std::size_t upTo(std::size_t most) { return random_() % (most + 1); }

    /// Up to five regions, of which some may be empty.
    std::vector<Region> split(Region data) {
        std::vector<Region> regions;
        for (std::size_t more = upTo(4); more > 0; --more) {
            const std::size_t length = upTo(data.size());
            regions.push_back(data.first(length));
            data = data.subspan(length);
        }
        regions.push_back(data);
        return regions;
    }

 private:
    std::mt19937 random_{20261122};
};

class BothWaysTest : public testing::TestWithParam<const HmacAlgorithm*> {
 protected:
    HmacInfo keyOf(const Bytes& bytes) const {
        HmacInfo info;
        info.setKey(bytes);
        info.setAlgorithm(*GetParam());
        return info;
    }

    static Bytes tagOf(HmacInfo& key, const std::vector<Region>& regions, std::size_t length) {
        Bytes tag(length, 0xcc);
        EXPECT_TRUE(computeTag(key, regions, tag));
        EXPECT_TRUE(checkTag(key, regions, tag));
        return tag;
    }

    RandomInput random;
};

TEST_P(BothWaysTest, GiveTheSameTags) {
    for (std::size_t keyLength = 1; keyLength <= maxHmacKeyLength; ++keyLength) {
        const Bytes bytes = random.bytes(keyLength);
        HmacInfo byStates = keyOf(bytes);
        HmacInfo byContext = keyOf(bytes);
        ASSERT_TRUE(byStates.prepare() && byContext.makeContext());
        ASSERT_TRUE(byStates.states && !byStates.context);
        ASSERT_TRUE(byContext.context && !byContext.states);
        for (int i = 0; i < 20; ++i) {
            const Bytes data = random.bytes(random.upTo(2048));
            const std::vector<Region> regions = random.split(data);
            for (const std::size_t tagLength : {16U, 20U, 32U}) {
                const Bytes tag = tagOf(byStates, regions, tagLength);
                ASSERT_EQ(tag, tagOf(byContext, regions, tagLength));
                ASSERT_EQ(tag, hmacOf({std::string(GetParam()->name), bytes}, data, tagLength));
            }
        }
    }
}

TEST_P(BothWaysTest, GiveTheSameTagsForDataOfEveryLength) {
    const Bytes bytes = random.bytes(32);
    HmacInfo byStates = keyOf(bytes);
    HmacInfo byContext = keyOf(bytes);
    ASSERT_TRUE(byContext.makeContext());
    const Bytes data = random.bytes(2048);
    for (std::size_t length = 0; length <= data.size(); ++length) {
        const std::vector<Region> regions{Region(data).first(length)};
        ASSERT_EQ(tagOf(byStates, regions, 32), tagOf(byContext, regions, 32)) << length;
    }
}

TEST_P(BothWaysTest, GiveZerosWithoutAKey) {
    HmacInfo none = keyOf({});
    const Bytes data(5, 1);
    EXPECT_THAT(tagOf(none, {data}, 32), testing::Each(0));
    EXPECT_EQ(none.states, nullptr);
    EXPECT_EQ(none.context, nullptr);
}

TEST_P(BothWaysTest, DoNotChangeTheStates) {
    HmacInfo key = keyOf(random.bytes(32));
    const Bytes data = random.bytes(500);
    const Bytes first = tagOf(key, {data}, 32);
    const KeyedDigest* const kept = key.states.get();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(tagOf(key, {data}, 32), first);
    }
    EXPECT_EQ(key.states.get(), kept);
}

INSTANTIATE_TEST_SUITE_P(Algorithms, BothWaysTest, testing::Values(&hmacSha1, &hmacSha256),
                         [](const auto& row) { return std::string(row.param->name); });

}  // namespace
}  // namespace vesk
