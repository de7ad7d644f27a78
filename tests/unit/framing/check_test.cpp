#include <gtest/gtest.h>

#include <vector>

#include "support/library_key.h"

namespace vesk {
namespace {

const TestKey newKey{"sha256", Bytes(16, 0x11)};
const TestKey oldKey{"sha1", Bytes(20, 0x22)};
const TestKey strangeKey{"sha256", Bytes(16, 0x33)};

struct CheckedDatagram {
    vesk_framing_result result = VESK_FRAMING_OK;
    vesk_framing_fields fields{};
};

/// Fields in which everything differs from what a function writes.
vesk_framing_fields staleFields() {
    return {99, VESK_FRAMING_MATCH_OLD_KEY, 99, 99};
}

void expectZero(const vesk_framing_fields& fields) {
    EXPECT_EQ(fields.label, 0U);
    EXPECT_EQ(fields.match, VESK_FRAMING_MATCH_NONE);
    EXPECT_EQ(fields.payload_offset, 0U);
    EXPECT_EQ(fields.payload_length, 0U);
}

CheckedDatagram check(int version, const Bytes& datagram, const TestKey& key,
                      const TestKey* other = nullptr) {
    const LibraryKey first = libraryKey(key);
    const LibraryKey second = other == nullptr ? nullptr : libraryKey(*other);
    CheckedDatagram checked{VESK_FRAMING_OK, staleFields()};
    checked.result = vesk_framing_check(libraryVersion(version), datagram.data(), datagram.size(),
                                        first.get(), second.get(), &checked.fields);
    return checked;
}

class FramingCheckTest : public testing::TestWithParam<int> {
 protected:
    const int version = GetParam();
    const Bytes payload = toBytes("hello");
};

TEST_P(FramingCheckTest, GivesTheFields) {
    const Bytes datagram = framedDatagram(version, 0xfffffffe, payload, newKey);
    const CheckedDatagram checked = check(version, datagram, newKey);
    EXPECT_EQ(checked.result, VESK_FRAMING_OK);
    EXPECT_EQ(checked.fields.label, 0xfffffffeU);
    EXPECT_EQ(checked.fields.match, VESK_FRAMING_MATCH_KEY);
    EXPECT_EQ(checked.fields.payload_offset, version == 1 ? 38U : 20U);
    EXPECT_EQ(checked.fields.payload_length, 5U);
}

TEST_P(FramingCheckTest, SaysWhichOfTwoKeysMatched) {
    const Bytes byNew = framedDatagram(version, 7, payload, newKey);
    const Bytes byOld = framedDatagram(version, 7, payload, oldKey);
    EXPECT_EQ(check(version, byNew, newKey, &oldKey).fields.match, VESK_FRAMING_MATCH_KEY);
    const CheckedDatagram old = check(version, byOld, newKey, &oldKey);
    EXPECT_EQ(old.result, VESK_FRAMING_OK);
    EXPECT_EQ(old.fields.match, VESK_FRAMING_MATCH_OLD_KEY);
    EXPECT_EQ(old.fields.label, 7U);
    EXPECT_EQ(check(version, byOld, newKey).result, VESK_FRAMING_WRONG_HMAC);
    const CheckedDatagram strange =
        check(version, framedDatagram(version, 7, payload, strangeKey), newKey, &oldKey);
    EXPECT_EQ(strange.result, VESK_FRAMING_WRONG_HMAC);
    EXPECT_EQ(strange.fields.match, VESK_FRAMING_MATCH_NONE);
}

TEST_P(FramingCheckTest, GivesTheFieldsOfADatagramWithAWrongHmac) {
    const CheckedDatagram checked =
        check(version, framedDatagram(version, 7, payload, strangeKey), newKey);
    EXPECT_EQ(checked.result, VESK_FRAMING_WRONG_HMAC);
    EXPECT_EQ(checked.fields.label, 7U);
    EXPECT_EQ(checked.fields.payload_length, 5U);
}

TEST_P(FramingCheckTest, TakesZerosForAnEmptyKeyOnly) {
    const Bytes bare = framedDatagram(version, 7, payload);
    EXPECT_EQ(check(version, bare, {}).fields.match, VESK_FRAMING_MATCH_KEY);
    EXPECT_EQ(check(version, bare, newKey).result, VESK_FRAMING_WRONG_HMAC);
    const TestKey none{};
    EXPECT_EQ(check(version, bare, newKey, &none).fields.match, VESK_FRAMING_MATCH_OLD_KEY);
    const Bytes keyed = framedDatagram(version, 7, payload, newKey);
    EXPECT_EQ(check(version, keyed, {}).result, VESK_FRAMING_WRONG_HMAC);
}

TEST_P(FramingCheckTest, LeavesNoFieldsOfADatagramThatItCannotRead) {
    const Bytes datagram = framedDatagram(version, 7, payload, newKey);
    const CheckedDatagram empty = check(version, {}, newKey);
    EXPECT_EQ(empty.result, VESK_FRAMING_TOO_SHORT);
    expectZero(empty.fields);
    const CheckedDatagram longest = check(version, Bytes(2049), newKey);
    EXPECT_EQ(longest.result, VESK_FRAMING_TOO_LONG);
    expectZero(longest.fields);
}

TEST_P(FramingCheckTest, RefusesNullPointersAndUnknownVersions) {
    const Bytes datagram = framedDatagram(version, 7, payload, newKey);
    const LibraryKey key = libraryKey(newKey);
    const auto known = libraryVersion(version);
    for (const auto& [framing, bytes, with] :
         std::vector<std::tuple<vesk_framing_version, const std::uint8_t*, vesk_framing_key*>>{
             {static_cast<vesk_framing_version>(0), datagram.data(), key.get()},
             {static_cast<vesk_framing_version>(3), datagram.data(), key.get()},
             {known, nullptr, key.get()},
             {known, datagram.data(), nullptr}}) {
        vesk_framing_fields fields = staleFields();
        EXPECT_EQ(vesk_framing_check(framing, bytes, datagram.size(), with, nullptr, &fields),
                  VESK_FRAMING_INVALID_ARGUMENT);
        expectZero(fields);
    }
    EXPECT_EQ(
        vesk_framing_check(known, datagram.data(), datagram.size(), key.get(), nullptr, nullptr),
        VESK_FRAMING_INVALID_ARGUMENT);
    EXPECT_EQ(
        vesk_framing_check(known, datagram.data(), datagram.size(), nullptr, nullptr, nullptr),
        VESK_FRAMING_INVALID_ARGUMENT);
}

TEST_P(FramingCheckTest, ParsesWithoutAKey) {
    const Bytes datagram = framedDatagram(version, 7, payload, newKey);
    vesk_framing_fields fields = staleFields();
    EXPECT_EQ(
        vesk_framing_parse(libraryVersion(version), datagram.data(), datagram.size(), &fields),
        VESK_FRAMING_OK);
    EXPECT_EQ(fields.label, 7U);
    EXPECT_EQ(fields.match, VESK_FRAMING_MATCH_NONE);
    EXPECT_EQ(fields.payload_length, 5U);
    EXPECT_EQ(
        vesk_framing_parse(libraryVersion(version), datagram.data(), datagram.size(), nullptr),
        VESK_FRAMING_INVALID_ARGUMENT);
}

TEST_P(FramingCheckTest, RelabelsInPlaceWithoutACheck) {
    Bytes datagram = framedDatagram(version, 7, payload, strangeKey);
    EXPECT_EQ(vesk_framing_relabel(libraryVersion(version), datagram.data(), datagram.size(), 8,
                                   libraryKey(newKey).get()),
              VESK_FRAMING_OK);
    EXPECT_EQ(datagram, framedDatagram(version, 8, payload, newKey));
}

TEST_P(FramingCheckTest, LeavesADatagramThatItDoesNotRelabelUnchanged) {
    const LibraryKey key = libraryKey(newKey);
    const Bytes before = framedDatagram(version, 7, payload, newKey);
    Bytes datagram = before;
    EXPECT_EQ(vesk_framing_relabel(libraryVersion(version), datagram.data(), 19, 8, key.get()),
              VESK_FRAMING_TOO_SHORT);
    EXPECT_EQ(
        vesk_framing_relabel(libraryVersion(version), datagram.data(), datagram.size(), 8, nullptr),
        VESK_FRAMING_INVALID_ARGUMENT);
    EXPECT_EQ(vesk_framing_relabel(static_cast<vesk_framing_version>(3), datagram.data(),
                                   datagram.size(), 8, key.get()),
              VESK_FRAMING_INVALID_ARGUMENT);
    EXPECT_EQ(vesk_framing_relabel(libraryVersion(version), nullptr, 20, 8, key.get()),
              VESK_FRAMING_INVALID_ARGUMENT);
    EXPECT_EQ(datagram, before);
}

INSTANTIATE_TEST_SUITE_P(Versions, FramingCheckTest, testing::Values(1, 2));

TEST(FramingKeyReuseTest, OneKeyMakesAndChecksManyDatagrams) {
    const LibraryKey key = libraryKey(newKey);
    for (std::uint32_t label = 0; label < 100; ++label) {
        const Bytes payload(label);
        const vesk_framing_content content{label, nullptr, 0, payload.data(), payload.size()};
        Bytes buffer(200);
        std::size_t length = 0;
        ASSERT_EQ(vesk_framing_make(VESK_FRAMING_UDPV2, &content, key.get(), buffer.data(),
                                    buffer.size(), &length),
                  VESK_FRAMING_OK);
        buffer.resize(length);
        ASSERT_EQ(buffer, framedV2(label, payload, newKey));
        vesk_framing_fields fields{};
        ASSERT_EQ(vesk_framing_check(VESK_FRAMING_UDPV2, buffer.data(), length, key.get(), nullptr,
                                     &fields),
                  VESK_FRAMING_OK);
    }
}

}  // namespace
}  // namespace vesk
