#include "net/flow_records.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/printed.h"

namespace vesk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr std::uint32_t ownerLabel = 7;
constexpr std::uint16_t ownersPrefix = 0xABCD;
/// Two labels that the prefix covers.
constexpr std::uint32_t firstAux = 0xABCD0001;
constexpr std::uint32_t secondAux = 0xABCDFFFF;

FlowDesc mainFlow(std::uint32_t label, std::uint32_t upLabel = 0) {
    FlowDesc flow(label);
    flow.up.label = upLabel;
    flow.up.addrInfo = IPAddrInfo("127.0.0.1", 4500);
    return flow;
}

FlowDesc ownerOf(std::uint16_t prefix, std::uint32_t label = ownerLabel) {
    FlowDesc flow = mainFlow(label, 5);
    flow.downAuxFlowLabelPrefix = prefix;
    flow.upAuxFlowLabel = 0x00120034;
    return flow;
}

std::vector<std::uint32_t> labelsIn(const FlowRecords::Taken& taken) {
    std::vector<std::uint32_t> labels;
    for (const auto& record : taken) {
        labels.push_back(record.mapped().label);
    }
    return labels;
}

class FlowRecordsTest : public testing::Test {
 protected:
    FlowRecords records;
    // Destroyed first: their memory belongs to the records.
    FlowRecords::Taken taken;
};

class AuxFlowRecordsTest : public FlowRecordsTest {
 protected:
    AuxFlowRecordsTest() { records.put(ownerOf(ownersPrefix)); }
};

TEST_F(FlowRecordsTest, FindsOnlyDeclaredLabels) {
    EXPECT_EQ(records.find(1), nullptr);
    records.put(mainFlow(1));
    ASSERT_NE(records.find(1), nullptr);
    EXPECT_EQ(records.find(1)->label, 1U);
    EXPECT_EQ(records.find(0), nullptr);
    EXPECT_EQ(records.find(2), nullptr);
}

TEST_F(FlowRecordsTest, ReplacesTheRecordOfALabel) {
    records.put(mainFlow(1, 10));
    records.put(mainFlow(1, 20));
    EXPECT_EQ(records.find(1)->up.label, 20U);
    records.take(1, taken);
    EXPECT_EQ(records.find(1), nullptr);
}

TEST_F(FlowRecordsTest, MakesNoRecordWithoutAPrefix) {
    records.put(mainFlow(1));
    EXPECT_EQ(records.findOrMake(1), records.find(1));
    EXPECT_EQ(records.findOrMake(2), nullptr);
    EXPECT_FALSE(records.knows(2));
    EXPECT_TRUE(records.knows(1));
}

TEST_F(FlowRecordsTest, RegistersAPrefixOnlyTogetherWithAnUpstreamLabel) {
    FlowDesc withoutLabel = ownerOf(ownersPrefix);
    withoutLabel.upAuxFlowLabel = 0;
    records.put(withoutLabel);
    records.put(ownerOf(0, 8));
    EXPECT_FALSE(records.knows(firstAux));
    EXPECT_FALSE(records.knows(0x00000001));
    EXPECT_EQ(records.findOrMake(firstAux), nullptr);
}

TEST_F(AuxFlowRecordsTest, KnowsCoveredLabelsBeforeTheyHaveARecord) {
    EXPECT_TRUE(records.knows(firstAux));
    EXPECT_TRUE(records.knows(0xABCD0000));
    EXPECT_FALSE(records.knows(0xABCE0001));
    EXPECT_FALSE(records.knows(0x0001ABCD));
    EXPECT_EQ(records.find(firstAux), nullptr);
    EXPECT_FALSE(records.isAux(firstAux));
}

TEST_F(AuxFlowRecordsTest, MakesARecordFromThatOfTheOwner) {
    const FlowDesc* const made = records.findOrMake(firstAux);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->label, firstAux);
    EXPECT_EQ(made->isAuxFlow, 1);
    // The upper half is the owner's, the lower half that of the label.
    EXPECT_EQ(made->up.label, 0x00120001U);
    EXPECT_EQ(made->up.addrInfo.port(), 4500);
    EXPECT_EQ(records.findOrMake(firstAux), made);
    EXPECT_EQ(records.find(firstAux), made);
    EXPECT_TRUE(records.isAux(firstAux));
    EXPECT_FALSE(records.isAux(ownerLabel));
}

TEST_F(FlowRecordsTest, MakesRecordsWithTheUpstreamAddressForAuxiliaryFlows) {
    FlowDesc owner = ownerOf(ownersPrefix);
    owner.upAuxFlowAddrInfo = IPAddrInfo("127.0.0.2", 4600);
    records.put(owner);
    EXPECT_EQ(records.findOrMake(secondAux)->up.addrInfo.port(), 4600);
    EXPECT_EQ(records.find(ownerLabel)->up.addrInfo.port(), 4500);
}

TEST_F(FlowRecordsTest, AnOwnerWithALabelOfItsPrefixStaysAMainFlow) {
    records.put(ownerOf(ownersPrefix, firstAux));
    EXPECT_EQ(records.findOrMake(firstAux)->isAuxFlow, 0);
    EXPECT_EQ(records.findOrMake(secondAux)->isAuxFlow, 1);
}

TEST_F(AuxFlowRecordsTest, APrefixKeepsItsFirstOwner) {
    const std::string warning =
        "warn setLabelAttrs: Aux. flow label prefix added more than once; ignoring; label 8; label "
        "prefix 43981\n";
    FlowDesc second = ownerOf(ownersPrefix, 8);
    second.upAuxFlowLabel = 0x00560000;
    EXPECT_EQ(printedBy([&] { records.put(second); }), warning);
    EXPECT_EQ(records.findOrMake(firstAux)->up.label, 0x00120001U);
    EXPECT_TRUE(records.take(8, taken).auxLabels.empty());
    EXPECT_TRUE(records.knows(secondAux));
}

TEST_F(AuxFlowRecordsTest, MakesNoRecordIfTheOwnerIsGone) {
    // The owner changes its prefix, so that it no longer takes the old one with it.
    records.put(ownerOf(0xABCE));
    records.take(ownerLabel, taken);
    EXPECT_EQ(records.findOrMake(firstAux), nullptr);
    EXPECT_FALSE(records.knows(0xABCE0001));
}

TEST_F(AuxFlowRecordsTest, KeepsOnlyRecordsOfAuxiliaryFlows) {
    records.findOrMake(firstAux);
    records.keepAux(firstAux);
    EXPECT_TRUE(records.isKept(firstAux));
    for (const std::uint32_t label : {secondAux, ownerLabel, std::uint32_t{99}}) {
        records.keepAux(label);
        EXPECT_FALSE(records.isKept(label)) << label;
    }
    // A main flow with a label that the prefix covers.
    records.put(mainFlow(secondAux));
    records.keepAux(secondAux);
    EXPECT_FALSE(records.isKept(secondAux));
}

TEST_F(AuxFlowRecordsTest, TakesTheRecordOfOneAuxiliaryFlow) {
    for (const std::uint32_t label : {firstAux, secondAux}) {
        records.findOrMake(label);
        records.keepAux(label);
    }
    records.takeAux(firstAux, taken);
    EXPECT_THAT(labelsIn(taken), ElementsAre(firstAux));
    EXPECT_EQ(records.find(firstAux), nullptr);
    EXPECT_TRUE(records.isAux(secondAux));
    EXPECT_TRUE(records.isKept(secondAux));
    // A new record is not kept because the one before was.
    EXPECT_NE(records.findOrMake(firstAux), nullptr);
    EXPECT_FALSE(records.isKept(firstAux));
}

TEST_F(AuxFlowRecordsTest, DoesNotTakeOtherRecordsAsAuxiliary) {
    for (const std::uint32_t label : {ownerLabel, firstAux, std::uint32_t{99}}) {
        records.takeAux(label, taken);
    }
    EXPECT_THAT(taken, IsEmpty());
    EXPECT_NE(records.find(ownerLabel), nullptr);
}

TEST_F(FlowRecordsTest, TakesNothingForAnUnknownLabel) {
    const AuxPrefixEntry prefix = records.take(1, taken);
    EXPECT_THAT(taken, IsEmpty());
    EXPECT_THAT(prefix.auxLabels, IsEmpty());
}

TEST_F(AuxFlowRecordsTest, TakesAnOwnerWithItsAuxiliaryFlows) {
    records.put(mainFlow(1));
    records.findOrMake(firstAux);
    records.findOrMake(secondAux);
    records.keepAux(secondAux);
    const AuxPrefixEntry prefix = records.take(ownerLabel, taken);
    EXPECT_EQ(prefix.baseLabel, ownerLabel);
    EXPECT_THAT(prefix.auxLabels, UnorderedElementsAre(firstAux, secondAux));
    EXPECT_THAT(prefix.lastingLabels, UnorderedElementsAre(secondAux));
    EXPECT_THAT(labelsIn(taken), UnorderedElementsAre(ownerLabel, firstAux, secondAux));
    EXPECT_FALSE(records.knows(firstAux));
    EXPECT_FALSE(records.isKept(secondAux));
    EXPECT_TRUE(records.knows(1));
}

TEST_F(AuxFlowRecordsTest, TakesAnAuxiliaryFlowByItsLabelAndKeepsThePrefix) {
    records.findOrMake(firstAux);
    records.keepAux(firstAux);
    EXPECT_THAT(records.take(firstAux, taken).auxLabels, IsEmpty());
    EXPECT_THAT(labelsIn(taken), ElementsAre(firstAux));
    EXPECT_TRUE(records.knows(firstAux));
    EXPECT_FALSE(records.isKept(firstAux));
    EXPECT_THAT(records.take(ownerLabel, taken).auxLabels, IsEmpty());
}

TEST_F(AuxFlowRecordsTest, AReleasedPrefixCanHaveANewOwner) {
    records.take(ownerLabel, taken);
    EXPECT_EQ(printedBy([&] { records.put(ownerOf(ownersPrefix, 8)); }), "");
    EXPECT_EQ(records.findOrMake(firstAux)->label, firstAux);
    EXPECT_EQ(records.take(8, taken).baseLabel, 8U);
}

TEST_F(AuxFlowRecordsTest, RecordsTakenOutAreUnchanged) {
    records.findOrMake(firstAux);
    records.take(ownerLabel, taken);
    records.put(mainFlow(ownerLabel, 99));
    EXPECT_EQ(taken.front().mapped().up.label, 5U);
}

}  // namespace
}  // namespace vesk
