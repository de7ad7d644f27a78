#include "datapath/wire/authentication.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "flow/hmac_info.h"
#include "support/framed.h"
#include "support/printed.h"

namespace vesk {
namespace {

using Region = std::span<const std::uint8_t>;
using Buffer = std::array<std::uint8_t, maxDatagramSize>;

HmacInfo recordOf(const TestKey& key) {
    HmacInfo info;
    info.setKey(key.bytes);
    info.setAlgorithm(key.digest == "sha1" ? hmacSha1 : hmacSha256);
    return info;
}

const EVP_MD* noDigest() {
    return nullptr;
}

/// A record that makes libcrypto fail.
HmacInfo refusedRecord() {
    HmacInfo info = recordOf({"sha256", {1}});
    info.digest = noDigest;
    return info;
}

Bytes tagOf(HmacInfo& info, const std::vector<Region>& regions, std::size_t length) {
    Bytes tag(length, 0xcc);
    EXPECT_TRUE(computeTag(info, regions, tag));
    return tag;
}

struct KnownAnswer {
    const char* name;
    Bytes key;
    Bytes data;
    const char* sha1;
    const char* sha256;
};

std::vector<KnownAnswer> knownAnswers() {
    return {
        {"Greeting", Bytes(20, 0x0b), toBytes("Hi There"),
         "b617318655057264e28bc0b6fb378c8ef146be00",
         "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
        {"Question", toBytes("Jefe"), toBytes("what do ya want for nothing?"),
         "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79",
         "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
        {"Repeated", Bytes(20, 0xaa), Bytes(50, 0xdd), "125d7342b9ac11cd91a39af48aa17b4f63f175d3",
         "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe"},
        {"Counted", fromHex("0102030405060708090a0b0c0d0e0f10111213141516171819"), Bytes(50, 0xcd),
         "4c9007f4026250c6bc8414f9bf50c86c2d7235da",
         "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b"},
    };
}

class KnownAnswerTest : public testing::TestWithParam<KnownAnswer> {};

TEST_P(KnownAnswerTest, IsComputedInFull) {
    HmacInfo sha256 = recordOf({"sha256", GetParam().key});
    EXPECT_EQ(toHex(tagOf(sha256, {GetParam().data}, 32)), GetParam().sha256);
    HmacInfo sha1 = recordOf({"sha1", GetParam().key});
    EXPECT_EQ(toHex(tagOf(sha1, {GetParam().data}, 20)), GetParam().sha1);
}

TEST_P(KnownAnswerTest, IsTruncatedToSixteenBytes) {
    HmacInfo sha256 = recordOf({"sha256", GetParam().key});
    EXPECT_EQ(toHex(tagOf(sha256, {GetParam().data}, 16)),
              std::string(GetParam().sha256).substr(0, 32));
    HmacInfo sha1 = recordOf({"sha1", GetParam().key});
    EXPECT_EQ(toHex(tagOf(sha1, {GetParam().data}, 16)),
              std::string(GetParam().sha1).substr(0, 32));
}

TEST_P(KnownAnswerTest, IsPaddedWithZeros) {
    HmacInfo sha1 = recordOf({"sha1", GetParam().key});
    EXPECT_EQ(toHex(tagOf(sha1, {GetParam().data}, 32)), GetParam().sha1 + std::string(24, '0'));
}

TEST_P(KnownAnswerTest, IsTheSameHoweverTheDataIsSplit) {
    const Region data(GetParam().data);
    HmacInfo info = recordOf({"sha256", GetParam().key});
    for (std::size_t at = 0; at <= data.size(); ++at) {
        EXPECT_EQ(toHex(tagOf(info, {data.first(at), data.subspan(at)}, 32)), GetParam().sha256);
    }
}

TEST_P(KnownAnswerTest, IsTheSameWithAReusedContext) {
    HmacInfo info = recordOf({"sha256", GetParam().key});
    EXPECT_TRUE(info.makeContext());
    EXPECT_EQ(toHex(tagOf(info, {GetParam().data}, 32)), GetParam().sha256);
    const HMAC_CTX* const kept = info.context.get();
    EXPECT_NE(kept, nullptr);
    const Bytes other(7);
    tagOf(info, {other}, 32);
    EXPECT_EQ(toHex(tagOf(info, {GetParam().data}, 32)), GetParam().sha256);
    EXPECT_EQ(info.context.get(), kept);
}

TEST_P(KnownAnswerTest, PassesTheCheck) {
    HmacInfo info = recordOf({"sha256", GetParam().key});
    const std::vector<Region> regions{GetParam().data};
    Bytes tag = fromHex(GetParam().sha256);
    EXPECT_TRUE(checkTag(info, regions, tag));
    EXPECT_TRUE(checkTag(info, regions, std::span(tag).first(16)));
    for (std::uint8_t& byte : tag) {
        byte ^= 1;
        EXPECT_FALSE(checkTag(info, regions, tag));
        byte ^= 1;
    }
}

INSTANTIATE_TEST_SUITE_P(Vectors, KnownAnswerTest, testing::ValuesIn(knownAnswers()),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(ComputeTagTest, IsZeroWithoutAKey) {
    HmacInfo info;
    const Bytes data(5, 1);
    EXPECT_THAT(tagOf(info, {data}, 16), testing::Each(0));
}

TEST(ComputeTagTest, AcceptsTheLongestKey) {
    const TestKey key{"sha256", Bytes(128, 0x5a)};
    HmacInfo info = recordOf(key);
    const Bytes data(5, 1);
    EXPECT_EQ(tagOf(info, {data}, 32), hmacOf(key, data, 32));
}

TEST(ComputeTagTest, UsesANewKeyAtOnce) {
    HmacInfo info = recordOf({"sha256", {1}});
    const Bytes data(5, 1);
    tagOf(info, {data}, 32);
    info.setKey(Bytes{2});
    EXPECT_EQ(tagOf(info, {data}, 32), hmacOf({"sha256", {2}}, data, 32));
    info.setAlgorithm(hmacSha1);
    EXPECT_EQ(tagOf(info, {data}, 32), hmacOf({"sha1", {2}}, data, 32));
}

TEST(ComputeTagTest, UsesKeyAndAlgorithmHoweverTheyAreMerged) {
    const Bytes data(5, 1);
    const TestKey key{"sha256", {1, 2, 3}};
    HmacInfo from = recordOf(key);
    HmacInfo algorithmLast = recordOf({"sha1", {9}});
    HmacInfo keyLast = recordOf({"sha1", {9}});
    tagOf(algorithmLast, {data}, 32);
    tagOf(keyLast, {data}, 32);
    algorithmLast.copyKeyFrom(from);
    EXPECT_EQ(tagOf(algorithmLast, {data}, 32), hmacOf({"sha1", key.bytes}, data, 32));
    algorithmLast.copyAlgorithmFrom(from);
    keyLast.copyAlgorithmFrom(from);
    EXPECT_EQ(tagOf(keyLast, {data}, 32), hmacOf({"sha256", {9}}, data, 32));
    keyLast.copyKeyFrom(from);
    HmacInfo copy(from);
    for (HmacInfo* const info : {&algorithmLast, &keyLast, &copy}) {
        EXPECT_EQ(tagOf(*info, {data}, 32), hmacOf(key, data, 32));
    }
}

TEST(ComputeTagTest, FailsWhenLibcryptoFails) {
    HmacInfo info = refusedRecord();
    const Bytes data(5, 1);
    const std::vector<Region> regions{data};
    Bytes tag(16);
    // The second call fails too: a context without a key must not be reused.
    EXPECT_FALSE(computeTag(info, regions, tag));
    EXPECT_EQ(info.context, nullptr);
    EXPECT_FALSE(computeTag(info, regions, tag));
    info.setAlgorithm(hmacSha256);
    EXPECT_TRUE(computeTag(info, regions, tag));
}

TEST(CheckTagTest, ExpectsZerosWithoutAKey) {
    HmacInfo info;
    Bytes tag(32);
    EXPECT_TRUE(checkTag(info, {}, tag));
    for (std::uint8_t& byte : tag) {
        byte = 1;
        EXPECT_FALSE(checkTag(info, {}, tag));
        byte = 0;
    }
}

TEST(CheckTagTest, FailsWhenLibcryptoFails) {
    HmacInfo info = refusedRecord();
    EXPECT_FALSE(checkTag(info, {}, Bytes(16)));
}

/// Signs and checks one framed datagram in one buffer.
struct Framed {
    Framed(const FramingDescriptor& descriptor, const Bytes& datagram, std::size_t header)
        : framing(descriptor), headerLength(header), length(datagram.size()) {
        buffer.fill(0xee);
        std::ranges::copy(datagram, buffer.begin());
    }

    bool sign(HmacInfo& info) { return signDatagram(framing, buffer, headerLength, length, info); }
    bool check(HmacInfo& info) const {
        return checkDatagram(framing, buffer, headerLength, length, info);
    }
    Bytes field() const { return {buffer.begin(), buffer.begin() + framing.hmacLength}; }
    Bytes datagram() const { return {buffer.begin(), buffer.begin() + static_cast<long>(length)}; }

    const FramingDescriptor& framing;
    Buffer buffer;
    std::size_t headerLength;
    std::size_t length;
};

/// A datagram whose covered bytes, in the order in which they are covered, are the known text.
Framed greetingV1() {
    Bytes datagram(32, 0x77);
    const Bytes headerThenPayload = toBytes(" ThereHi");
    datagram.insert(datagram.end(), headerThenPayload.begin(), headerThenPayload.end());
    return {framingV1, datagram, 38};
}

TEST(SignDatagramTest, CoversThePayloadThenTheHeaderInUdpv1) {
    const KnownAnswer known = knownAnswers().front();
    Framed framed = greetingV1();
    HmacInfo sha256 = recordOf({"sha256", known.key});
    EXPECT_TRUE(framed.sign(sha256));
    EXPECT_EQ(toHex(framed.field()), known.sha256);
    EXPECT_TRUE(framed.check(sha256));
}

TEST(SignDatagramTest, PadsAShortDigestInUdpv1) {
    const KnownAnswer known = knownAnswers().front();
    Framed framed = greetingV1();
    HmacInfo sha1 = recordOf({"sha1", known.key});
    EXPECT_TRUE(framed.sign(sha1));
    EXPECT_EQ(toHex(framed.field()), known.sha1 + std::string(24, '0'));
    EXPECT_TRUE(framed.check(sha1));
    framed.buffer[31] = 1;
    EXPECT_FALSE(framed.check(sha1));
}

TEST(SignDatagramTest, CoversFurtherHeaderBytesInUdpv1) {
    const TestKey key{"sha256", {1, 2, 3}};
    const Bytes expected = framedV1(7, toBytes("payload"), key, toBytes("more"));
    Framed framed(framingV1, framedV1(7, toBytes("payload"), {}, toBytes("more")), 42);
    HmacInfo info = recordOf(key);
    EXPECT_TRUE(framed.sign(info));
    EXPECT_EQ(framed.datagram(), expected);
}

TEST(SignDatagramTest, CoversLabelAndPayloadInUdpv2) {
    const KnownAnswer known = knownAnswers().front();
    Bytes datagram(16, 0x77);
    datagram.insert(datagram.end(), known.data.begin(), known.data.end());
    Framed framed(framingV2, datagram, 20);
    HmacInfo sha256 = recordOf({"sha256", known.key});
    EXPECT_TRUE(framed.sign(sha256));
    EXPECT_EQ(toHex(framed.field()), std::string(known.sha256).substr(0, 32));
    HmacInfo sha1 = recordOf({"sha1", known.key});
    EXPECT_TRUE(framed.sign(sha1));
    EXPECT_EQ(toHex(framed.field()), std::string(known.sha1).substr(0, 32));
}

TEST(SignDatagramTest, SignsAnEmptyPayloadInUdpv2) {
    const TestKey key{"sha256", {9}};
    Framed framed(framingV2, framedV2(7, {}), 20);
    HmacInfo info = recordOf(key);
    EXPECT_TRUE(framed.sign(info));
    EXPECT_EQ(framed.datagram(), framedV2(7, {}, key));
}

TEST(SignDatagramTest, WritesTheFieldAndNothingElse) {
    HmacInfo info = recordOf({"sha256", {9}});
    Framed framed(framingV2, framedV2(7, toBytes("payload")), 20);
    const Buffer before = framed.buffer;
    EXPECT_TRUE(framed.sign(info));
    EXPECT_TRUE(std::equal(before.begin() + 16, before.end(), framed.buffer.begin() + 16));
}

TEST(SignDatagramTest, WritesZerosWithoutAKey) {
    HmacInfo none;
    for (const FramingDescriptor* framing : {&framingV1, &framingV2}) {
        Framed framed(*framing, Bytes(60, 0x77), framing->minHeaderSize);
        EXPECT_TRUE(framed.sign(none));
        EXPECT_EQ(framed.field(), Bytes(framing->hmacLength));
        EXPECT_EQ(framed.buffer[framing->hmacLength], 0x77);
        EXPECT_TRUE(framed.check(none));
    }
}

TEST(SignDatagramTest, FailsWhenLibcryptoFails) {
    HmacInfo refused = refusedRecord();
    Framed framed(framingV2, framedV2(7, {}), 20);
    EXPECT_EQ(printedBy([&] {
                  EXPECT_FALSE(framed.sign(refused));
                  EXPECT_FALSE(framed.check(refused));
              }),
              "");
}

TEST(CheckDatagramTest, FailsForEveryByteChanged) {
    const TestKey key{"sha256", {1, 2, 3}};
    HmacInfo info = recordOf(key);
    const Bytes v1 = framedV1(7, toBytes("payload"), key, toBytes("more"));
    const Bytes v2 = framedV2(7, toBytes("payload"), key);
    for (auto& [framing, datagram, header] :
         {std::tuple(&framingV1, v1, 42), std::tuple(&framingV2, v2, 20)}) {
        Framed framed(*framing, datagram, static_cast<std::size_t>(header));
        EXPECT_TRUE(framed.check(info));
        for (std::size_t i = 0; i < framed.length; ++i) {
            framed.buffer.at(i) ^= 0x80;
            EXPECT_FALSE(framed.check(info)) << i;
            framed.buffer.at(i) ^= 0x80;
        }
    }
}

TEST(CheckDatagramTest, IgnoresBytesAfterTheDatagram) {
    const TestKey key{"sha1", {1, 2, 3}};
    HmacInfo info = recordOf(key);
    Framed framed(framingV2, framedV2(7, toBytes("payload"), key), 20);
    framed.buffer.at(framed.length) ^= 1;
    EXPECT_TRUE(framed.check(info));
}

TEST(CheckDatagramTest, FailsForAnotherKeyOrDigest) {
    Framed framed(framingV2, framedV2(7, toBytes("payload"), {"sha1", {1}}), 20);
    HmacInfo otherKey = recordOf({"sha1", {2}});
    EXPECT_FALSE(framed.check(otherKey));
    HmacInfo otherDigest = recordOf({"sha256", {1}});
    EXPECT_FALSE(framed.check(otherDigest));
    HmacInfo none;
    EXPECT_FALSE(framed.check(none));
}

TEST(CheckDatagramTest, RefusesAnUnsignedDatagramWhenThereIsAKey) {
    HmacInfo info = recordOf({"sha256", {1}});
    const Framed framed(framingV2, framedV2(7, toBytes("payload")), 20);
    EXPECT_FALSE(framed.check(info));
}

TEST(CheckDatagramTest, AcceptsTheLargestDatagram) {
    const TestKey key{"sha256", {1}};
    HmacInfo info = recordOf(key);
    const Framed framed(framingV2, framedV2(7, Bytes(2028, 3), key), 20);
    EXPECT_EQ(framed.length, 2048U);
    EXPECT_TRUE(framed.check(info));
}

}  // namespace
}  // namespace vesk
