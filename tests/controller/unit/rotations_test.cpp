#include "service/rotations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "configuration_text.h"

namespace vesk::controller {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;

const std::string rotating =
    "[controller]\nrotate_seconds = 10\n"
    "[flows.a]\nlabel = 1\nupstream = \"127.0.0.1:1\"\n";
const LabelTraffic nothing{};
const LabelTraffic request{1, 0};
const LabelTraffic reply{0, 1};

/// Rotations at times in seconds.
class RotationsTest : public testing::Test {
 protected:
    static Rotations::Clock::time_point at(int second) {
        return Rotations::Clock::time_point() + seconds(1000 + second);
    }

    Rotations::News take(const std::string& text, int second = 0) {
        configuration = configurationOf(text + std::string(listening));
        return rotations.take(configuration, at(second), {});
    }

    /// A report of both labels; the flows whose next label is used for the first time.
    std::vector<RotatedFlow> report(int second, LabelTraffic old, LabelTraffic next,
                                    const Rotations::Reporter& reporter = {0}) {
        return rotations.observe({{1, old}, {2, next}}, reporter, at(second));
    }

    std::vector<std::uint32_t> silent() {
        std::vector<std::uint32_t> labels;
        for (const SilentLabel& it : rotations.takeSilent()) {
            labels.push_back(it.flow.label);
        }
        return labels;
    }

    Configuration configuration;
    Rotations rotations;
};

TEST_F(RotationsTest, EndOnceTheOldLabelIsSilentAndTheNextIsUsed) {
    EXPECT_THAT(take(rotating + "next = { label = 2 }\n").begun, ElementsAre("a"));
    EXPECT_THAT(configuration.flows, ElementsAre(Key(1U), Key(2U)));
    EXPECT_THAT(report(1, request, nothing), IsEmpty());
    EXPECT_THAT(report(2, request, request), ElementsAre(RotatedFlow{"a", 1, 2}));
    EXPECT_THAT(report(3, nothing, request), IsEmpty());
    report(11, nothing, request);
    EXPECT_THAT(silent(), IsEmpty());
    report(12, nothing, nothing);
    const std::vector<SilentLabel> ended = rotations.takeSilent();
    ASSERT_EQ(ended.size(), 1U);
    EXPECT_EQ(ended[0].flow, (RotatedFlow{"a", 1, 2}));
    EXPECT_EQ(ended[0].silence, seconds(10));
    EXPECT_THAT(silent(), IsEmpty());
}

TEST_F(RotationsTest, DoNotEndBeforeTheNextLabelHasBeenUsed) {
    take(rotating + "next = { label = 2 }\n");
    report(100, nothing, nothing);
    report(200, nothing, reply);
    EXPECT_THAT(silent(), IsEmpty());
    report(300, nothing, request);
    EXPECT_THAT(silent(), IsEmpty());
    report(309, nothing, nothing);
    EXPECT_THAT(silent(), IsEmpty());
    report(310, nothing, nothing);
    EXPECT_THAT(silent(), ElementsAre(1U));
}

TEST_F(RotationsTest, GoOnWhileTheOldLabelHasTrafficInAnyDirection) {
    take(rotating + "next = { label = 2 }\n");
    report(1, nothing, request);
    for (const int second : {10, 19, 28}) {
        report(second, second == 19 ? request : reply, request);
        EXPECT_THAT(silent(), IsEmpty());
    }
    report(37, nothing, request);
    EXPECT_THAT(silent(), IsEmpty());
    report(38, nothing, request);
    EXPECT_THAT(silent(), ElementsAre(1U));
}

TEST_F(RotationsTest, WithoutSecondsEndOnlyByTheFile) {
    take(rotating + "next = { label = 2, rotate_seconds = 0 }\n");
    report(1, nothing, request);
    report(100000, nothing, request);
    EXPECT_THAT(silent(), IsEmpty());
    // A reload applies a new value at once.
    EXPECT_THAT(take(rotating + "next = { label = 2, rotate_seconds = 5 }\n").begun, IsEmpty());
    report(100001, nothing, request);
    EXPECT_THAT(silent(), ElementsAre(1U));
}

TEST_F(RotationsTest, DoNotTakeAForwarderThatCannotBeReachedForSilent) {
    take(rotating + "next = { label = 2 }\n");
    report(1, nothing, request);
    report(30, nothing, nothing, {0, false});
    report(39, nothing, nothing);
    EXPECT_THAT(silent(), IsEmpty());
    report(40, nothing, nothing);
    EXPECT_THAT(silent(), ElementsAre(1U));
}

TEST_F(RotationsTest, NeedAReportOfTheForwarderThatServesTheOldLabel) {
    take(rotating + "next = { label = 2 }\n");
    report(1, nothing, request);
    report(30, nothing, nothing, {std::nullopt});
    EXPECT_THAT(silent(), IsEmpty());
    // One that drains, or does not serve yet, still shows traffic.
    report(31, request, nothing, {std::nullopt});
    report(40, nothing, nothing);
    EXPECT_THAT(silent(), IsEmpty());
    report(41, nothing, nothing);
    EXPECT_THAT(silent(), ElementsAre(1U));
}

TEST_F(RotationsTest, JoinTheReportsOfTwoInstances) {
    const std::string two =
        "[forwarder]\ninstances = 2\n[controller]\nrotate_seconds = 10\n"
        "[flows.a]\nlabel = 0x20001\nupstream = \"127.0.0.1:1\"\nnext = { label = 0x10001 }\n"
        "[downstream]\naddress = \"::\"\nport = 4500\ninstance_ports = [4501, 4503]\n";
    configuration = configurationOf(two);
    rotations.take(configuration, at(0), {});
    const TrafficByLabel oldSilent{{0x20001, nothing}};
    const TrafficByLabel nextUsed{{0x10001, request}};
    rotations.observe(oldSilent, {0}, at(5));
    EXPECT_EQ(rotations.observe(nextUsed, {1}, at(6)).size(), 1U);
    // The instance of the next label says nothing about the old one.
    rotations.observe(nextUsed, {1}, at(30));
    EXPECT_THAT(silent(), IsEmpty());
    rotations.observe(oldSilent, {0}, at(30));
    EXPECT_THAT(silent(), ElementsAre(0x20001U));
}

TEST_F(RotationsTest, WaitForBothInstancesOfAnAuxiliaryPrefix) {
    configuration = configurationOf(
        "[forwarder]\ninstances = 2\n[controller]\nrotate_seconds = 10\n"
        "[flows.a]\nlabel = 1\nupstream = \"127.0.0.1:1\"\n"
        "auxiliary = { prefix = 3, upstream_label = 1 }\n"
        "next = { label = 2, auxiliary = { prefix = 5, upstream_label = 1 } }\n"
        "[downstream]\naddress = \"::\"\nport = 4500\ninstance_ports = [4501, 4503]\n");
    rotations.take(configuration, at(0), {});
    report(1, nothing, request, {0});
    report(20, nothing, nothing, {0});
    EXPECT_THAT(silent(), IsEmpty());
    report(20, nothing, nothing, {1});
    EXPECT_THAT(silent(), ElementsAre(1U));
}

class EndedRotationTest : public RotationsTest {
 protected:
    void SetUp() override {
        take(rotating + "next = { label = 2 }\n");
        report(1, nothing, request);
        report(11, nothing, nothing);
        ASSERT_THAT(silent(), ElementsAre(1U));
    }
};

TEST_F(EndedRotationTest, IsRememberedWhileTheFileHasBothLabels) {
    const Rotations::News news = take(rotating + "next = { label = 2 }\n");
    EXPECT_THAT(news.begun, IsEmpty());
    EXPECT_THAT(news.stillInFile, ElementsAre("a"));
    EXPECT_THAT(configuration.flows, ElementsAre(Key(2U)));
    EXPECT_TRUE(rotations.figures().at(0).deleted);
    report(100, nothing, nothing);
    EXPECT_THAT(silent(), IsEmpty());
}

TEST_F(EndedRotationTest, IsForgottenOnceTheFileHasOnlyTheNextLabel) {
    const Rotations::News news = take("[flows.a]\nlabel = 2\nupstream = \"127.0.0.1:1\"\n");
    EXPECT_THAT(news.begun, IsEmpty());
    EXPECT_THAT(news.stillInFile, IsEmpty());
    EXPECT_THAT(configuration.flows, ElementsAre(Key(2U)));
    EXPECT_THAT(rotations.figures(), IsEmpty());
}

TEST_F(EndedRotationTest, IsUndoneByAFileThatHasOnlyTheOldLabel) {
    take(rotating);
    EXPECT_THAT(configuration.flows, ElementsAre(Key(1U)));
}

TEST_F(EndedRotationTest, IsFollowedByAnotherOne) {
    EXPECT_THAT(take("[flows.a]\nlabel = 2\nupstream = \"127.0.0.1:1\"\n"
                     "next = { label = 1 }\n")
                    .begun,
                ElementsAre("a"));
    EXPECT_THAT(configuration.flows, ElementsAre(Key(1U), Key(2U)));
}

TEST_F(RotationsTest, ShowTheirFigures) {
    take(rotating + "next = { label = 2 }\n");
    report(1, {5, 4}, {3, 2});
    report(2, {1, 0}, {1, 0});
    const std::vector<RotationFigures> figures = rotations.figures();
    ASSERT_EQ(figures.size(), 1U);
    EXPECT_EQ(figures[0].name, "a");
    EXPECT_EQ(figures[0].label, 1U);
    EXPECT_EQ(figures[0].nextLabel, 2U);
    EXPECT_EQ(figures[0].received, 6U);
    EXPECT_EQ(figures[0].nextReceived, 4U);
    EXPECT_FALSE(figures[0].deleted);
}

TEST_F(RotationsTest, IgnoreALabelThatAnotherFragmentHas) {
    configuration = configurationOf(rotating + "next = { label = 2 }\n" + std::string(listening));
    configuration.flows.erase(2);
    EXPECT_THAT(rotations.take(configuration, at(0), {}).begun, IsEmpty());
    EXPECT_THAT(configuration.flows, ElementsAre(Key(1U)));
}

}  // namespace
}  // namespace vesk::controller
