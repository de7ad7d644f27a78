#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <span>

#include "support/library_key.h"

namespace vesk {
namespace {

const TestKey makingKey{"sha256", Bytes(16, 0x42)};

struct MadeDatagram {
    vesk_framing_result result = VESK_FRAMING_OK;
    std::size_t length = 0;
    Bytes buffer;
};

vesk_framing_content contentOf(const Bytes& payload, const Bytes& further = {}) {
    return {7, further.data(), further.size(), payload.data(), payload.size()};
}

MadeDatagram makeIn(std::size_t capacity, vesk_framing_version version,
                    const vesk_framing_content& content) {
    MadeDatagram made;
    made.buffer.assign(capacity, 0xee);
    made.length = 99;
    made.result = vesk_framing_make(version, &content, libraryKey(makingKey).get(),
                                    made.buffer.data(), capacity, &made.length);
    return made;
}

TEST(FramingMakeTest, WritesTheDatagramAndNothingBehindIt) {
    const Bytes payload = toBytes("hello");
    const MadeDatagram v2 = makeIn(100, VESK_FRAMING_UDPV2, contentOf(payload));
    EXPECT_EQ(v2.result, VESK_FRAMING_OK);
    EXPECT_EQ(v2.buffer, join({framedV2(7, payload, makingKey), Bytes(75, 0xee)}));
    EXPECT_EQ(v2.length, 25U);
    const Bytes further = toBytes("more");
    const MadeDatagram v1 = makeIn(100, VESK_FRAMING_UDPV1, contentOf(payload, further));
    EXPECT_EQ(v1.result, VESK_FRAMING_OK);
    EXPECT_EQ(v1.buffer, join({framedV1(7, payload, makingKey, further), Bytes(53, 0xee)}));
    EXPECT_EQ(v1.length, 47U);
}

TEST(FramingMakeTest, NeedsRoomForTheWholeDatagram) {
    const Bytes payload = toBytes("hello");
    EXPECT_EQ(makeIn(25, VESK_FRAMING_UDPV2, contentOf(payload)).result, VESK_FRAMING_OK);
    const MadeDatagram short1 = makeIn(24, VESK_FRAMING_UDPV2, contentOf(payload));
    EXPECT_EQ(short1.result, VESK_FRAMING_NO_ROOM);
    EXPECT_EQ(short1.length, 25U) << "the room that is needed";
    EXPECT_EQ(short1.buffer, Bytes(24, 0xee));
    const MadeDatagram none = makeIn(0, VESK_FRAMING_UDPV1, contentOf(payload));
    EXPECT_EQ(none.result, VESK_FRAMING_NO_ROOM);
    EXPECT_EQ(none.length, 43U);
}

TEST(FramingMakeTest, MakesAtMost2048Bytes) {
    EXPECT_EQ(makeIn(4096, VESK_FRAMING_UDPV2, contentOf(Bytes(2028))).length, 2048U);
    EXPECT_EQ(makeIn(4096, VESK_FRAMING_UDPV2, contentOf(Bytes(2029))).result,
              VESK_FRAMING_TOO_LONG);
    EXPECT_EQ(makeIn(4096, VESK_FRAMING_UDPV1, contentOf(Bytes(1), Bytes(2009))).length, 2048U);
    const MadeDatagram above = makeIn(4096, VESK_FRAMING_UDPV1, contentOf(Bytes(1), Bytes(2010)));
    EXPECT_EQ(above.result, VESK_FRAMING_TOO_LONG);
    EXPECT_EQ(above.length, 0U);
}

TEST(FramingMakeTest, RefusesLengthsWhoseSumOverflows) {
    const Bytes bytes(1);
    const std::size_t most = std::numeric_limits<std::size_t>::max();
    EXPECT_EQ(
        makeIn(100, VESK_FRAMING_UDPV1, {7, bytes.data(), most - 40, bytes.data(), 50}).result,
        VESK_FRAMING_TOO_LONG);
    EXPECT_EQ(makeIn(100, VESK_FRAMING_UDPV2, {7, nullptr, 0, bytes.data(), most - 10}).result,
              VESK_FRAMING_TOO_LONG);
}

TEST(FramingMakeTest, NeedsAPayloadInUdpv1Only) {
    EXPECT_EQ(makeIn(100, VESK_FRAMING_UDPV1, contentOf({})).result, VESK_FRAMING_NO_PAYLOAD);
    EXPECT_EQ(makeIn(100, VESK_FRAMING_UDPV2, contentOf({})).length, 20U);
}

TEST(FramingMakeTest, TakesFurtherHeaderBytesInUdpv1Only) {
    const Bytes further(1);
    const Bytes payload(1);
    EXPECT_EQ(makeIn(100, VESK_FRAMING_UDPV2, contentOf(payload, further)).result,
              VESK_FRAMING_INVALID_ARGUMENT);
}

TEST(FramingMakeTest, TakesAPayloadThatOverlapsTheBuffer) {
    const Bytes payload = toBytes("a payload that is somewhere in the buffer already");
    const LibraryKey key = libraryKey(makingKey);
    const Bytes expected = framedV1(7, payload, makingKey, Bytes(4, 1));
    // At the front, in its place (42), and behind it.
    for (const std::size_t place : {0U, 41U, 42U, 43U, 80U}) {
        Bytes buffer(200);
        std::ranges::copy(payload, buffer.begin() + static_cast<std::ptrdiff_t>(place));
        const Bytes further(4, 1);
        const vesk_framing_content content{7, further.data(), 4, buffer.data() + place,
                                           payload.size()};
        std::size_t length = 0;
        EXPECT_EQ(vesk_framing_make(VESK_FRAMING_UDPV1, &content, key.get(), buffer.data(),
                                    buffer.size(), &length),
                  VESK_FRAMING_OK);
        EXPECT_EQ(toBytes(std::span(buffer).first(length)), expected) << place;
    }
}

TEST(FramingMakeTest, RefusesNullPointersAndUnknownVersions) {
    const LibraryKey key = libraryKey(makingKey);
    const Bytes payload(1);
    const vesk_framing_content content = contentOf(payload);
    const vesk_framing_content noPayload{7, nullptr, 0, nullptr, 1};
    const vesk_framing_content noFurther{7, nullptr, 1, payload.data(), 1};
    Bytes buffer(100);
    std::size_t length = 5;
    const auto made = [&](vesk_framing_version version, const vesk_framing_content* what,
                          vesk_framing_key* with, std::uint8_t* into) {
        return vesk_framing_make(version, what, with, into, buffer.size(), &length);
    };
    const auto invalid = VESK_FRAMING_INVALID_ARGUMENT;
    const auto v1 = VESK_FRAMING_UDPV1;
    EXPECT_EQ(made(static_cast<vesk_framing_version>(0), &content, key.get(), buffer.data()),
              invalid);
    EXPECT_EQ(made(static_cast<vesk_framing_version>(3), &content, key.get(), buffer.data()),
              invalid);
    EXPECT_EQ(made(v1, nullptr, key.get(), buffer.data()), invalid);
    EXPECT_EQ(made(v1, &content, nullptr, buffer.data()), invalid);
    EXPECT_EQ(made(v1, &content, key.get(), nullptr), invalid);
    EXPECT_EQ(made(v1, &noPayload, key.get(), buffer.data()), invalid);
    EXPECT_EQ(made(v1, &noFurther, key.get(), buffer.data()), invalid);
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(vesk_framing_make(v1, &content, key.get(), buffer.data(), buffer.size(), nullptr),
              invalid);
}

TEST(FramingHeaderLengthTest, IsTheOffsetOfThePayload) {
    EXPECT_EQ(vesk_framing_header_length(VESK_FRAMING_UDPV1, 0), 38U);
    EXPECT_EQ(vesk_framing_header_length(VESK_FRAMING_UDPV1, 4), 42U);
    EXPECT_EQ(vesk_framing_header_length(VESK_FRAMING_UDPV2, 0), 20U);
    EXPECT_EQ(vesk_framing_header_length(static_cast<vesk_framing_version>(0), 0), 0U);
}

struct Room {
    vesk_framing_version version;
    vesk_framing_ip ip;
    std::size_t mtu;
    std::size_t further;
    std::size_t expected;
};

vesk_framing_result largest(const Room& room, std::size_t& length) {
    length = 99;
    return vesk_framing_largest_payload(room.version, room.ip, room.mtu, room.further, &length);
}

TEST(FramingLargestPayloadTest, IsTheRestOfThePacket) {
    for (const Room& room : {Room{VESK_FRAMING_UDPV2, VESK_FRAMING_IPV4, 1500, 0, 1452},
                             Room{VESK_FRAMING_UDPV2, VESK_FRAMING_IPV6, 1500, 0, 1432},
                             Room{VESK_FRAMING_UDPV1, VESK_FRAMING_IPV4, 1500, 0, 1434},
                             Room{VESK_FRAMING_UDPV1, VESK_FRAMING_IPV6, 1280, 4, 1190},
                             Room{VESK_FRAMING_UDPV2, VESK_FRAMING_IPV4, 48, 0, 0},
                             Room{VESK_FRAMING_UDPV1, VESK_FRAMING_IPV4, 67, 0, 1},
                             Room{VESK_FRAMING_UDPV2, VESK_FRAMING_IPV4, 2076, 0, 2028},
                             Room{VESK_FRAMING_UDPV2, VESK_FRAMING_IPV4, 9000, 0, 2028},
                             Room{VESK_FRAMING_UDPV1, VESK_FRAMING_IPV6, SIZE_MAX, 2009, 1}}) {
        std::size_t length = 0;
        EXPECT_EQ(largest(room, length), VESK_FRAMING_OK) << room.mtu;
        EXPECT_EQ(length, room.expected) << room.mtu;
    }
}

TEST(FramingLargestPayloadTest, FailsWithoutRoomForTheShortest) {
    for (const Room& room : {Room{VESK_FRAMING_UDPV2, VESK_FRAMING_IPV4, 47, 0, 0},
                             Room{VESK_FRAMING_UDPV1, VESK_FRAMING_IPV4, 66, 0, 0},
                             Room{VESK_FRAMING_UDPV1, VESK_FRAMING_IPV4, 67, 1, 0},
                             Room{VESK_FRAMING_UDPV1, VESK_FRAMING_IPV4, 9000, 2010, 0},
                             Room{VESK_FRAMING_UDPV1, VESK_FRAMING_IPV4, 1500, SIZE_MAX, 0},
                             Room{VESK_FRAMING_UDPV2, VESK_FRAMING_IPV6, 0, 0, 0}}) {
        std::size_t length = 0;
        EXPECT_EQ(largest(room, length), VESK_FRAMING_NO_ROOM) << room.mtu;
        EXPECT_EQ(length, 0U);
    }
}

TEST(FramingLargestPayloadTest, RefusesInvalidArguments) {
    std::size_t length = 0;
    const auto unknown = static_cast<vesk_framing_ip>(5);
    EXPECT_EQ(largest({VESK_FRAMING_UDPV1, unknown, 1500, 0, 0}, length),
              VESK_FRAMING_INVALID_ARGUMENT);
    EXPECT_EQ(largest({VESK_FRAMING_UDPV2, VESK_FRAMING_IPV4, 1500, 1, 0}, length),
              VESK_FRAMING_INVALID_ARGUMENT);
    EXPECT_EQ(
        largest({static_cast<vesk_framing_version>(3), VESK_FRAMING_IPV4, 1500, 0, 0}, length),
        VESK_FRAMING_INVALID_ARGUMENT);
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(vesk_framing_largest_payload(VESK_FRAMING_UDPV1, VESK_FRAMING_IPV4, 1500, 0, nullptr),
              VESK_FRAMING_INVALID_ARGUMENT);
}

}  // namespace
}  // namespace vesk
