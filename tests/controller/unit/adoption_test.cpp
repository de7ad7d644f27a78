#include "service/adoption.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <memory>
#include <utility>

#include "child/forwarder_session.h"
#include "child/process_descriptor.h"
#include "configuration_text.h"

namespace vesk::controller {
namespace {

using testing::ElementsAre;

constexpr std::string_view twoOfThreePorts =
    "[downstream]\naddress = \"0.0.0.0\"\nport = 4500\ninstance_ports = [4501, 4503]\n"
    "[forwarder]\ninstances = 2\n";

class AdoptionTest : public testing::Test {
 protected:
    AdoptionTest() {
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        sink.reset(null);
    }

    /// A program that ends with its input, as a forwarder does; the store passes its descriptors.
    pid_t leave(std::size_t number, std::uint16_t port) {
        started.push_back(std::make_unique<ForwarderSession>("cat", std::vector<std::string>{}));
        ForwarderSession& one = *started.back();
        pass({{number, port}, KeptPart::input}, dup(one.input()));
        pass({{number, port}, KeptPart::output}, dup(one.output()));
        pass({{number, port}, KeptPart::process}, processDescriptor(one.pid()).release());
        one.finishInput();
        return one.pid();
    }

    void pass(const KeptName& name, int descriptor) {
        passed.push_back({textOf(name), UniqueFd(descriptor)});
    }

    Adoption adopt(const SteeringMap& left, std::string_view file = twoOfThreePorts) {
        LogOutput log(sink.get(), LogForm::words);
        return adoptForwarders(std::move(passed), configurationOf(file), left, notification, log);
    }

    bool hasEndedAll() {
        for (const auto& one : started) {
            if (!one->reap()) {
                return false;
            }
        }
        return true;
    }

    UniqueFd sink;
    ServiceNotification notification{std::nullopt};
    std::vector<std::unique_ptr<ForwarderSession>> started;
    std::vector<PassedDescriptor> passed;
};

TEST_F(AdoptionTest, TakesTheForwardersOverToWhichTheRulesSend) {
    const pid_t first = leave(0, 4503);
    leave(1, 4502);
    Adoption adoption = adopt({{0, 4503}, {1, 4502}});
    EXPECT_THAT(adoption.ports, ElementsAre(4503, 4502));
    EXPECT_TRUE(adoption.rulesFit);
    EXPECT_FALSE(adoption.leftOver);
    ASSERT_EQ(adoption.forwarders.size(), 2U);
    EXPECT_EQ(ForwarderSession(std::move(adoption.forwarders.at(0))).pid(), first);
}

TEST_F(AdoptionTest, LeavesTheSecondForwarderOfAnInstanceOver) {
    const pid_t second = leave(0, 4501);
    leave(0, 4503);
    leave(1, 4502);
    Adoption adoption = adopt({{0, 4503}, {1, 4502}});
    EXPECT_THAT(adoption.ports, ElementsAre(4503, 4502));
    EXPECT_EQ(adoption.forwarders.size(), 2U);
    ASSERT_TRUE(adoption.leftOver);
    EXPECT_EQ(adoption.leftOver->place, (KeptPlace{0, 4501}));
    EXPECT_EQ(ForwarderSession(std::move(adoption.leftOver->descriptors)).pid(), second);
}

TEST_F(AdoptionTest, ChoosesFreePortsWhereTheRulesAreGone) {
    leave(1, 4501);
    Adoption adoption = adopt({});
    EXPECT_THAT(adoption.ports, ElementsAre(4502, 4501));
    EXPECT_FALSE(adoption.rulesFit);
    EXPECT_EQ(adoption.forwarders.size(), 1U);
}

TEST_F(AdoptionTest, DoesNotRelyOnDamagedRules) {
    const std::array<SteeringMap, 4> damaged{SteeringMap{{0, 4501}},
                                             {{0, 4501}, {2, 4502}},
                                             {{0, 4501}, {1, 4501}},
                                             {{0, 4501}, {1, 9}}};
    for (const SteeringMap& left : damaged) {
        const Adoption adoption = adopt(left);
        EXPECT_FALSE(adoption.rulesFit);
        EXPECT_THAT(adoption.ports, ElementsAre(4501, 4502));
    }
}

TEST_F(AdoptionTest, EndsWhatDoesNotFitTheFile) {
    leave(2, 4501);
    leave(0, 4504);
    leave(0, 4500);
    const Adoption adoption = adopt({});
    EXPECT_TRUE(adoption.forwarders.empty());
    EXPECT_THAT(adoption.ports, ElementsAre(4501, 4502));
    EXPECT_TRUE(hasEndedAll());
}

TEST_F(AdoptionTest, EndsEverythingIfTheFileHasNoInstances) {
    leave(0, 4501);
    const Adoption adoption = adopt({}, "[downstream]\naddress = \"0.0.0.0\"\nport = 4500\n");
    EXPECT_TRUE(adoption.forwarders.empty());
    EXPECT_TRUE(adoption.ports.empty());
    EXPECT_TRUE(hasEndedAll());
}

TEST_F(AdoptionTest, EndsAForwarderWithoutAllItsDescriptors) {
    for (int missing = 0; missing < 3; ++missing) {
        leave(0, 4501);
        passed.erase(passed.begin() + missing);
        // Without the process it is not waited for.
        EXPECT_TRUE(adopt({}).forwarders.empty());
    }
    started.clear();
}

TEST_F(AdoptionTest, EndsAForwarderWithADescriptorOfAnotherKind) {
    for (std::size_t wrong = 0; wrong < 3; ++wrong) {
        leave(0, 4501);
        passed[wrong].descriptor.reset(dup(sink.get()));
        EXPECT_TRUE(adopt({}).forwarders.empty()) << wrong;
    }
    leave(0, 4501);
    std::swap(passed[0].name, passed[1].name);
    EXPECT_TRUE(adopt({}).forwarders.empty());
    leave(0, 4501);
    pass({{0, 4501}, KeptPart::input}, dup(passed[0].descriptor.get()));
    EXPECT_TRUE(adopt({}).forwarders.empty());
    started.clear();
}

TEST_F(AdoptionTest, ClosesDescriptorsThatHaveOtherNames) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    const UniqueFd reader(ends[0]);
    passed.push_back({"listener", UniqueFd(ends[1])});
    EXPECT_TRUE(adopt({}).forwarders.empty());
    char byte = 0;
    EXPECT_EQ(read(reader.get(), &byte, 1), 0);
}

TEST_F(AdoptionTest, DoesNotTakeOverAForwarderThatHasEnded) {
    leave(0, 4501);
    started.back()->signal(SIGKILL);
    pollfd end{passed.back().descriptor.get(), POLLIN, 0};
    ASSERT_EQ(poll(&end, 1, 10000), 1);
    EXPECT_TRUE(adopt({}).forwarders.empty());
}

TEST_F(AdoptionTest, KillsAForwarderThatDoesNotEnd) {
    leave(2, 4501);
    started.back()->signal(SIGSTOP);
    EXPECT_TRUE(adopt({}).forwarders.empty());
    EXPECT_TRUE(hasEndedAll());
}

}  // namespace
}  // namespace vesk::controller
