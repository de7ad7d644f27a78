#include "datapath/wire/layout.h"

#include <gtest/gtest.h>

#include <initializer_list>

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

}  // namespace
}  // namespace vesk
