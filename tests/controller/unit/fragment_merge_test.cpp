#include "config/fragments/fragment_merge.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "configuration_text.h"
#include "fragment_folder_fixture.h"

namespace vesk::controller {
namespace {

using testing::ElementsAre;

class FragmentMergeTest : public FragmentFolderTest {};

TEST_F(FragmentMergeTest, ReportsWhatTwoFragmentsSet) {
    write("00-base.toml", std::string(listening) + "[metrics]\n");
    write("10-a.toml", flowTable("a", 1, "auxiliary = { prefix = 5, upstream_label = 1 }\n"));
    write("20-b.toml", "[metrics]\n[forwarder]\n" + flowTable("a", 2));
    write("30-c.toml", flowTable("c", 1, "auxiliary = { prefix = 5, upstream_label = 1 }\n"));
    EXPECT_THAT(read(), ElementsAre(1U));
    EXPECT_FALSE(reading.complete);
    EXPECT_THAT(errors(),
                ElementsAre("20-b.toml:1: metrics is also in 00-base.toml:4",
                            "20-b.toml:2: forwarder must be in the fragment that has downstream, "
                            "00-base.toml",
                            "20-b.toml:3: flows.a is also in 10-a.toml:1",
                            "30-c.toml:2: flows.c.label is already used by flows.a in 10-a.toml:2",
                            "30-c.toml:4: flows.c.auxiliary has the same prefix as flows.a in "
                            "10-a.toml:4"));
    EXPECT_EQ(withoutFolder(reading.errors.back().consequence),
              "30-c.toml is not usable: its flows are not served");
}

TEST_F(FragmentMergeTest, GivesALabelToTheFirstFragment) {
    write("00-base.toml", std::string(listening));
    write("20-b.toml", flowTable("b", 1) + flowTable("c", 2));
    read();
    write("10-a.toml", flowTable("a", 1));
    EXPECT_THAT(read(), ElementsAre(1U, 2U));
    EXPECT_EQ(reading.configuration->flows.at(1).name, "a");
    EXPECT_THAT(errors(), ElementsAre("20-b.toml:2: flows.b.label is already used by flows.a in "
                                      "10-a.toml:2"));
    EXPECT_EQ(withoutFolder(reading.errors.back().consequence),
              "20-b.toml is not usable: its flows are unchanged, except those that an earlier "
              "fragment replaces");
    remove("10-a.toml");
    EXPECT_THAT(read(), ElementsAre(1U, 2U));
    EXPECT_EQ(reading.configuration->flows.at(1).name, "b");
    EXPECT_TRUE(reading.complete);
}

TEST_F(FragmentMergeTest, NeedsSettingsAtTheStart) {
    write("10-a.toml", flowTable("a", 1));
    read();
    EXPECT_FALSE(reading.configuration);
    EXPECT_EQ(reading.errors.front().lines.front(),
              folder.path().string() + ": downstream is missing");
    write("00-base.toml", "[downstream]\naddress = \"127.0.0.1\"\nport = 0\n");
    read();
    EXPECT_FALSE(reading.configuration);
    write("00-base.toml", std::string(listening) + flowTable("z", 0));
    EXPECT_THAT(read(), ElementsAre(1U));
    EXPECT_FALSE(reading.complete);
}

TEST_F(FragmentMergeTest, KeepsTheSettingsOfAFragmentWithAnErrorAndOfOneThatVanished) {
    write("00-base.toml", std::string(listening) + "[controller]\nstats_seconds = 5\n");
    write("10-a.toml", flowTable("a", 1));
    read();
    write("00-base.toml",
          std::string(listening) + "[controller]\nstats_seconds = 7\n" + flowTable("z", 0));
    EXPECT_THAT(read(), ElementsAre(1U));
    EXPECT_EQ(reading.configuration->supervision.stats, std::chrono::seconds(5));
    remove("00-base.toml");
    EXPECT_THAT(read(), ElementsAre(1U));
    EXPECT_EQ(reading.configuration->supervision.stats, std::chrono::seconds(5));
    EXPECT_FALSE(reading.complete);
    EXPECT_EQ(reading.errors.back().consequence,
              folder.path().string() + " is not usable: the settings are unchanged");
    write("05-base.toml", std::string(listening));
    read();
    EXPECT_TRUE(reading.complete);
    EXPECT_EQ(reading.configuration->supervision.stats, std::chrono::seconds(10));
}

TEST_F(FragmentMergeTest, ChecksSourcesOfSeveralInstances) {
    write("00-base.toml",
          std::string(listening) + "instance_ports = [4501, 4505]\n[forwarder]\ninstances = 2\n");
    write("10-a.toml", flowTable("a", 0x10001, "source = \"127.0.0.1:7000\"\n"));
    write("20-b.toml", flowTable("b", 0x20001, "source = \"127.0.0.1:7000\"\n"));
    write("30-c.toml", flowTable("c", 0x20002, "source = \"127.0.0.1:4502\"\n"));
    EXPECT_THAT(read(), ElementsAre(0x10001U));
    EXPECT_THAT(
        errors(),
        ElementsAre("20-b.toml:4: flows.b.source is also that of flows.a, which belongs to another "
                    "instance: instance (label >> 16) mod forwarder.instances has the flow",
                    "30-c.toml:4: flows.c.source has one of downstream.instance_ports"));
}

TEST_F(FragmentMergeTest, TakesTheNextOfAFlow) {
    write("00-base.toml", std::string(listening));
    write("10-a.toml", flowTable("a", 1, "next = { label = 2 }\n"));
    write("20-b.toml", flowTable("b", 3, "next = { label = 4 }\n"));
    EXPECT_THAT(read(), ElementsAre(1U, 2U, 3U, 4U));
    EXPECT_TRUE(reading.complete);
    EXPECT_TRUE(reading.configuration->flows.at(4).isNext);

    write("30-c.toml", flowTable("c", 5, "next = { label = 4 }\n") + flowTable("d", 2));
    EXPECT_THAT(read(), ElementsAre(1U, 2U, 3U, 4U));
    EXPECT_THAT(errors(), ElementsAre("30-c.toml:4: flows.c.next.label is already used by "
                                      "flows.b.next in 20-b.toml:4",
                                      "30-c.toml:6: flows.d.label is already used by flows.a.next "
                                      "in 10-a.toml:4"));
}

TEST_F(FragmentMergeTest, DropsTheNextWithItsFlow) {
    write("00-base.toml", std::string(listening));
    write("20-a.toml", flowTable("a", 1, "next = { label = 2 }\n"));
    read();
    write("10-b.toml", flowTable("b", 1));
    EXPECT_THAT(read(), ElementsAre(1U));
    EXPECT_EQ(reading.configuration->flows.at(1).name, "b");
}

}  // namespace
}  // namespace vesk::controller
