#include "net/endpoint_tables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace vesk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

EndpointPtr endpointOf(std::uint32_t label) {
    return std::make_unique<VeskEndpointDescriptor>(label, 7, 8, FlowDesc(), [](int, int) {});
}

std::vector<std::uint32_t> labelsOf(const std::vector<EndpointPtr>& endpoints) {
    std::vector<std::uint32_t> labels;
    labels.reserve(endpoints.size());
    for (const EndpointPtr& endpoint : endpoints) {
        labels.push_back(endpoint->label);
    }
    return labels;
}

TEST(DescriptorTableTest, FindsInsertedEntries) {
    DescriptorTable table;
    const EndpointPtr first = endpointOf(1);
    const EndpointPtr second = endpointOf(2);
    EXPECT_TRUE(table.insert(9, first));
    EXPECT_TRUE(table.insert(0, second));
    EXPECT_EQ(table.find(9), first);
    EXPECT_EQ(table.find(0), second);
    for (const int fd : {-1, 1, 8, 10, 100000}) {
        EXPECT_EQ(table.find(fd), nullptr) << fd;
    }
}

TEST(DescriptorTableTest, KeepsTheFirstEntryOfADescriptor) {
    DescriptorTable table;
    const EndpointPtr first = endpointOf(1);
    EXPECT_TRUE(table.insert(9, first));
    EXPECT_FALSE(table.insert(9, endpointOf(2)));
    EXPECT_EQ(table.find(9), first);
}

TEST(DescriptorTableTest, RefusesANegativeDescriptor) {
    DescriptorTable table;
    EXPECT_FALSE(table.insert(-1, endpointOf(1)));
    table.erase(-1);
    EXPECT_EQ(table.find(-1), nullptr);
}

TEST(DescriptorTableTest, DoesNotFindAnErasedEntry) {
    DescriptorTable table;
    const EndpointPtr first = endpointOf(1);
    table.insert(9, first);
    table.erase(9);
    table.erase(9);
    table.erase(100000);
    EXPECT_EQ(table.find(9), nullptr);
    EXPECT_EQ(first.use_count(), 1);
    EXPECT_TRUE(table.insert(9, first));
}

class LabelTableTest : public testing::Test {
 protected:
    void fill(const std::vector<std::uint32_t>& labels) {
        for (const std::uint32_t label : labels) {
            EXPECT_TRUE(table.insert(endpointOf(label)));
        }
    }

    LabelTable table;
};

TEST_F(LabelTableTest, KeepsLabelsInAscendingOrder) {
    fill({5, 1, 0xffffffff, 3, 0});
    EXPECT_THAT(labelsOf(table.rows()), ElementsAre(0, 1, 3, 5, 0xffffffff));
}

TEST_F(LabelTableTest, FindsInsertedEntries) {
    fill({5, 1, 3});
    for (const std::uint32_t label : {1U, 3U, 5U}) {
        ASSERT_NE(table.find(label), nullptr);
        EXPECT_EQ(table.find(label)->label, label);
        EXPECT_TRUE(table.contains(label));
    }
    for (const std::uint32_t label : {0U, 2U, 4U, 6U, 0xffffffffU}) {
        EXPECT_EQ(table.find(label), nullptr);
        EXPECT_FALSE(table.contains(label));
    }
}

TEST_F(LabelTableTest, FindsNothingWhileItIsEmpty) {
    EXPECT_EQ(table.find(0), nullptr);
    EXPECT_EQ(table.take(0), nullptr);
    EXPECT_THAT(table.rows(), IsEmpty());
}

TEST_F(LabelTableTest, KeepsTheFirstEndpointOfALabel) {
    const EndpointPtr first = endpointOf(5);
    EXPECT_TRUE(table.insert(first));
    EXPECT_FALSE(table.insert(endpointOf(5)));
    EXPECT_EQ(table.find(5), first);
    EXPECT_EQ(table.rows().size(), 1U);
}

TEST_F(LabelTableTest, DoesNotFindATakenEntry) {
    fill({5, 1, 3});
    const EndpointPtr taken = table.take(3);
    ASSERT_NE(taken, nullptr);
    EXPECT_EQ(taken->label, 3U);
    EXPECT_EQ(taken.use_count(), 1);
    EXPECT_EQ(table.take(3), nullptr);
    EXPECT_THAT(labelsOf(table.rows()), ElementsAre(1, 5));
    EXPECT_NE(table.find(5), nullptr);
}

TEST_F(LabelTableTest, TakesAllChosenEntries) {
    fill({1, 2, 3, 4, 5, 6, 7});
    const auto taken = table.takeIf([](const auto& endpoint) { return endpoint.label % 3 == 1; });
    EXPECT_THAT(labelsOf(taken), ElementsAre(1, 4, 7));
    EXPECT_THAT(labelsOf(table.rows()), ElementsAre(2, 3, 5, 6));
    for (const std::uint32_t label : {2U, 3U, 5U, 6U}) {
        ASSERT_NE(table.find(label), nullptr);
        EXPECT_EQ(table.find(label)->label, label);
    }
    EXPECT_FALSE(table.contains(4));
}

TEST_F(LabelTableTest, TakesAllEntriesOrNone) {
    fill({1, 2});
    EXPECT_THAT(table.takeIf([](const auto&) { return false; }), IsEmpty());
    EXPECT_THAT(labelsOf(table.rows()), ElementsAre(1, 2));
    EXPECT_THAT(labelsOf(table.takeIf([](const auto&) { return true; })), ElementsAre(1, 2));
    EXPECT_THAT(table.rows(), IsEmpty());
    EXPECT_THAT(table.takeIf([](const auto&) { return true; }), IsEmpty());
}

}  // namespace
}  // namespace vesk
