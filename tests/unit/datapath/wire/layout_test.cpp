#include "datapath/wire/layout.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>

#include "support/bytes.h"

namespace vesk {
namespace {

void expectFields(const FramingDescriptor& framing, std::initializer_list<std::uint32_t> expected) {
    const std::initializer_list<std::uint32_t> fields{
        framing.version,          framing.hmacOffset,
        framing.hmacLength,       framing.headerLengthOffset,
        framing.headerLengthSize, framing.labelOffset,
        framing.labelSize,        framing.minHeaderSize};
    EXPECT_TRUE(std::equal(fields.begin(), fields.end(), expected.begin(), expected.end()));
}

TEST(WireLayoutTest, HasTheFieldsOfUdpv1WherePeersExpectThem) {
    expectFields(framingV1, {1, 0, 32, 32, 2, 34, 4, 38});
}

TEST(WireLayoutTest, HasTheFieldsOfUdpv2WherePeersExpectThem) {
    expectFields(framingV2, {2, 0, 16, 16, 0, 16, 4, 20});
}

TEST(WireLayoutTest, IsChosenByVersion) {
    EXPECT_EQ(&framingOfVersion(1), &framingV1);
    EXPECT_EQ(&framingOfVersion(2), &framingV2);
}

TEST(WireLayoutTest, HasTheLateralFieldsWhereOtherInstancesExpectThem) {
    EXPECT_EQ(lateralLayout.typeOffset, 0U);
    EXPECT_EQ(lateralLayout.returnInfoOffset, 1U);
    EXPECT_EQ(lateralLayout.lengthOffset, 1U);
    EXPECT_EQ(lateralLayout.lengthSize, 1U);
    EXPECT_EQ(lateralLayout.addressOffset, 2U);
    EXPECT_EQ(lateralLayout.minAddressLength, 16U);
    EXPECT_EQ(lateralLayout.maxAddressLength, 28U);
    EXPECT_EQ(lateralLayout.hmacLength, 16U);
    EXPECT_EQ(lateralLayout.minLateralSize, 34U);
    EXPECT_EQ(lateralForward, 1);
    EXPECT_EQ(lateralReturn, 2);
}

TEST(ReturnPathTest, IsEmptyByDefault) {
    EXPECT_TRUE(ReturnPath().empty());
    EXPECT_TRUE(ReturnPath().bytes().empty());
    EXPECT_TRUE(ReturnPath(Bytes()).empty());
}

TEST(ReturnPathTest, KeepsUpTo45Bytes) {
    Bytes bytes(ReturnPath::capacity, 7);
    EXPECT_EQ(bytes.size(), 45U);
    bytes.back() = 9;
    const ReturnPath path(bytes);
    EXPECT_FALSE(path.empty());
    EXPECT_EQ(toBytes(path.bytes()), bytes);
}

TEST(ReturnPathTest, IsComparedByItsBytes) {
    EXPECT_EQ(ReturnPath(Bytes{1, 2}), ReturnPath(Bytes{1, 2}));
    EXPECT_FALSE(ReturnPath(Bytes{1, 2}) == ReturnPath(Bytes{1, 3}));
    EXPECT_FALSE(ReturnPath(Bytes{1, 2}) == ReturnPath(Bytes{1}));
    EXPECT_FALSE(ReturnPath(Bytes{0}) == ReturnPath());
    EXPECT_EQ(ReturnPath(), ReturnPath());
}

}  // namespace
}  // namespace vesk
