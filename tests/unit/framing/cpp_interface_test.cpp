// The layer of vesk_framing.hpp: it passes arguments and results on, and owns keys.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <span>
#include <type_traits>
#include <utility>

#include "support/framed.h"
#include "vesk_framing.hpp"

namespace vesk {
namespace {

using framing::Digest;
using framing::Key;
using framing::Match;
using framing::Result;
using framing::Version;

const TestKey cppKey{"sha256", Bytes(16, 0x42)};

Key keyFor(const TestKey& key) {
    auto made = Key::make(key.digest == "sha1" ? Digest::sha1 : Digest::sha256, key.bytes);
    EXPECT_TRUE(made);
    return std::move(made.value);
}

static_assert(!std::is_copy_constructible_v<Key> && !std::is_copy_assignable_v<Key>);
static_assert(std::is_nothrow_move_constructible_v<Key> && std::is_nothrow_move_assignable_v<Key>);

TEST(FramingCppTest, MakesAndChecksADatagram) {
    Key key = keyFor(cppKey);
    const Bytes payload = toBytes("hello");
    const Bytes further = toBytes("more");
    std::array<std::uint8_t, framing::maxDatagram> buffer{};
    const auto made = framing::make(
        Version::udpv1, {.label = 7, .payload = payload, .further = further}, key, buffer);
    ASSERT_TRUE(made);
    const auto datagram = std::span(buffer).first(made.value);
    EXPECT_EQ(toBytes(datagram), framedV1(7, payload, cppKey, further));
    const auto checked = framing::check(Version::udpv1, datagram, key);
    ASSERT_TRUE(checked);
    EXPECT_EQ(checked.value.label, 7U);
    EXPECT_EQ(checked.value.match, Match::key);
    EXPECT_TRUE(std::ranges::equal(checked.value.payload, payload));
    EXPECT_EQ(checked.value.payload.data(), buffer.data() + 42);
}

TEST(FramingCppTest, AcceptsAnOldKeyToo) {
    const TestKey old{"sha1", Bytes(20, 1)};
    Key key = keyFor(cppKey);
    Key second = keyFor(old);
    const Bytes datagram = framedV2(7, {}, old);
    EXPECT_EQ(framing::check(Version::udpv2, datagram, key, &second).value.match, Match::oldKey);
    EXPECT_EQ(framing::check(Version::udpv2, datagram, key).result, Result::wrongHmac);
}

TEST(FramingCppTest, GivesNoPayloadOfADatagramThatItCannotRead) {
    Key key = keyFor(cppKey);
    const auto checked = framing::check(Version::udpv2, Bytes(19), key);
    EXPECT_EQ(checked.result, Result::tooShort);
    EXPECT_TRUE(checked.value.payload.empty());
    EXPECT_EQ(framing::check(Version::udpv2, {}, key).result, Result::tooShort);
}

TEST(FramingCppTest, ParsesAndRelabels) {
    const TestKey other{"sha1", Bytes(20, 1)};
    Key key = keyFor(other);
    Bytes datagram = framedV2(7, toBytes("hello"), cppKey);
    EXPECT_EQ(framing::parse(Version::udpv2, datagram).value.label, 7U);
    EXPECT_EQ(framing::relabel(Version::udpv2, datagram, 8, key), Result::ok);
    EXPECT_EQ(datagram, framedV2(8, toBytes("hello"), other));
}

TEST(FramingCppTest, AMovedKeyIsRefused) {
    Key key = keyFor(cppKey);
    const Key moved = std::move(key);
    EXPECT_TRUE(moved);
    // NOLINTNEXTLINE(bugprone-use-after-move): what a moved key does is documented
    EXPECT_FALSE(key);
    EXPECT_EQ(framing::check(Version::udpv2, framedV2(7, {}, cppKey), key).result,
              Result::invalidArgument);
}

TEST(FramingCppTest, ReportsWhyAKeyIsRefused) {
    const auto made = Key::make(Digest::sha256, {});
    EXPECT_FALSE(made);
    EXPECT_EQ(made.result, Result::keyLength);
    EXPECT_FALSE(made.value);
    EXPECT_STREQ(framing::text(made.result), "the key does not have 1 to 128 bytes");
}

TEST(FramingCppTest, AnEmptyKeySignsWithZeros) {
    auto key = Key::makeEmpty();
    ASSERT_TRUE(key);
    Bytes datagram = framedV2(7, {}, cppKey);
    EXPECT_EQ(framing::relabel(Version::udpv2, datagram, 7, key.value), Result::ok);
    EXPECT_EQ(datagram, framedV2(7, {}));
}

TEST(FramingCppTest, ComputesLengths) {
    EXPECT_EQ(framing::headerLength(Version::udpv1, 2), 40U);
    EXPECT_EQ(framing::largestPayload(Version::udpv2, framing::Ip::v6, 1280).value, 1212U);
    EXPECT_EQ(framing::largestPayload(Version::udpv1, framing::Ip::v4, 10).result, Result::noRoom);
}

}  // namespace
}  // namespace vesk
