#include "service/deployment.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>

#include "commands/command_lines.h"
#include "configuration_text.h"

namespace vesk::controller {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

const std::string flowA = "[flows.a]\nlabel = 1\nupstream = \"127.0.0.1:1\"\n";
const std::string flowB = "[flows.b]\nlabel = 2\nupstream = \"127.0.0.1:2\"\n";

Outcome outcomeOf(const Command& command, bool refused) {
    return {command, refused ? std::vector<std::string>{"no"} : std::vector<std::string>{}, {}};
}

/// A deployment after a new forwarder refused all commands with these words.
Deployment deployed(const Configuration& configuration, const std::set<std::string>& refused) {
    Deployment deployment;
    for (const Command& command : deployment.begin(configuration)) {
        deployment.note(outcomeOf(command, refused.contains(command.word)));
    }
    return deployment;
}

TEST(Deployment, KnowsTheFlowsByName) {
    const Deployment deployment = deployed(listeningWith(flowA + flowB), {});
    EXPECT_EQ(deployment.declaredFlows(), 2U);
    EXPECT_EQ(deployment.acceptedFlows(), 2U);
    EXPECT_THAT(deployment.flowNames(), ElementsAre(Pair(1U, "a"), Pair(2U, "b")));
}

TEST(Deployment, RepeatsRefusedCommandsUntilTheyAreAccepted) {
    const Configuration configuration = listeningWith(flowA);
    Deployment deployment = deployed(configuration, {"set", "start"});
    EXPECT_EQ(deployment.acceptedFlows(), 0U);
    EXPECT_TRUE(deployment.refusals().downstream);

    const ConfigurationChanges again = deployment.change(configuration);
    EXPECT_EQ(again.commands.size(), 4U);
    for (const Command& command : again.commands) {
        deployment.note(outcomeOf(command, false));
    }
    EXPECT_EQ(deployment.acceptedFlows(), 1U);
    EXPECT_THAT(deployment.change(configuration).commands, IsEmpty());
}

TEST(Deployment, KnowsTheListeningAddressFromOutcomes) {
    const Configuration before = listeningWith("");
    Configuration after = before;
    after.downstream = {"127.0.0.2", 7};
    Deployment deployment = deployed(before, {});
    EXPECT_EQ(deployment.listeningOn(), before.downstream);

    const std::vector<Command> move = deployment.change(after).commands;
    EXPECT_EQ(deployment.listeningOn(), before.downstream);
    for (const Command& command : move) {
        deployment.note(outcomeOf(command, command.word == "start"));
    }
    EXPECT_EQ(deployment.listeningOn(), std::nullopt);

    for (const Command& command : deployment.listenOn(before.downstream)) {
        deployment.note(outcomeOf(command, false));
    }
    EXPECT_EQ(deployment.listeningOn(), before.downstream);
}

class MovingDeployment : public testing::Test {
 protected:
    static Configuration at(std::uint16_t port) {
        Configuration configuration = listeningWith("");
        configuration.downstream.port = port;
        return configuration;
    }

    /// Notes the outcomes of commands that end with a start; returns that of the start.
    Outcome start(const std::vector<Command>& commands, bool refused) {
        for (const Command& command : commands) {
            deployment.note(outcomeOf(command, refused && command.word == "start"));
        }
        return outcomeOf(commands.back(), refused);
    }

    const HostPort first = at(1).downstream;
    Deployment deployment = deployed(at(1), {});
};

TEST_F(MovingDeployment, ReturnsToTheAddressBeforeTheMove) {
    EXPECT_EQ(deployment.lastListenedOn(), first);
    const Outcome refused = start(deployment.change(at(2)).commands, true);
    EXPECT_EQ(deployment.addressToReturnTo(refused), first);
    const Outcome back = start(deployment.listenOn(first), false);
    EXPECT_EQ(deployment.addressToReturnTo(back), std::nullopt);
}

TEST_F(MovingDeployment, ReturnsToTheSameAddressIfAReloadArrivesWhileItReturns) {
    start(deployment.change(at(2)).commands, true);
    const std::vector<Command> back = deployment.listenOn(first);
    deployment.note(outcomeOf(back.front(), false));
    EXPECT_EQ(deployment.lastListenedOn(), first);
    const std::vector<Command> again = deployment.change(at(3)).commands;
    EXPECT_EQ(deployment.addressToReturnTo(start({back.back()}, false)), std::nullopt);
    EXPECT_EQ(deployment.addressToReturnTo(start(again, true)), first);
}

TEST_F(MovingDeployment, WaitsForTheLastOfSeveralMoves) {
    const std::vector<Command> second = deployment.change(at(2)).commands;
    const std::vector<Command> third = deployment.change(at(3)).commands;
    EXPECT_EQ(deployment.addressToReturnTo(start(second, true)), std::nullopt);
    EXPECT_EQ(deployment.addressToReturnTo(start(third, true)), first);
}

TEST_F(MovingDeployment, ReturnsToTheLastAddressThatCouldBeOpened) {
    start(deployment.change(at(2)).commands, false);
    const Outcome refused = start(deployment.change(at(3)).commands, true);
    EXPECT_EQ(deployment.addressToReturnTo(refused), at(2).downstream);
}

TEST_F(MovingDeployment, DoesNotReturnToAnAddressThatIsRefusedToo) {
    start(deployment.change(at(2)).commands, true);
    const Outcome back = start(deployment.listenOn(first), true);
    EXPECT_EQ(deployment.lastListenedOn(), std::nullopt);
    EXPECT_EQ(deployment.addressToReturnTo(back), std::nullopt);
    const Outcome next = start(deployment.change(at(3)).commands, true);
    EXPECT_EQ(deployment.addressToReturnTo(next), std::nullopt);
}

TEST_F(MovingDeployment, ANewForwarderMayReturnToTheAddressOfTheLast) {
    const Outcome refused = start(deployment.begin(at(2)), true);
    EXPECT_EQ(deployment.addressToReturnTo(refused), first);
    EXPECT_EQ(deployment.addressToReturnTo(start(deployment.listenOn(first), false)), std::nullopt);
}

TEST(Deployment, HasNoAddressToReturnToBeforeItListens) {
    Deployment deployment = deployed(listeningWith(""), {"start"});
    EXPECT_EQ(deployment.lastListenedOn(), std::nullopt);
    const Command only = listenCommands(listeningWith("").downstream).back();
    EXPECT_EQ(deployment.addressToReturnTo(outcomeOf(only, true)), std::nullopt);
}

const std::string withLateral =
    "[lateral]\naddress = \"127.0.0.1\"\nport = 1\nindex = 0\ninstances = 2\n"
    "peers = [{ index = 1, address = \"127.0.0.2\" }]\n";

std::vector<std::string> wordsOf(const std::vector<Command>& commands) {
    std::vector<std::string> words;
    words.reserve(commands.size());
    for (const Command& command : commands) {
        words.push_back(command.word);
    }
    return words;
}

TEST(Deployment, ListensOnceTheForwarderHasAnswered) {
    const Configuration configuration = listeningWith(withLateral);
    Deployment deployment;
    const std::vector<Command> commands = deployment.begin(configuration);
    EXPECT_FALSE(deployment.listening());
    EXPECT_EQ(deployment.lateralListening(), false);
    for (const Command& command : commands) {
        deployment.note(outcomeOf(command, false));
    }
    EXPECT_TRUE(deployment.listensEverywhere());
    EXPECT_THAT(deployment.listenAgain(), IsEmpty());
    deployment.note(outcomeOf(listenCommands(configuration.downstream).front(), false));
    EXPECT_FALSE(deployment.listening());
    EXPECT_EQ(deployment.lateralListening(), true);
}

TEST(Deployment, TriesOnlyRefusedListenersAgain) {
    const Configuration configuration = listeningWith(withLateral + flowA);
    EXPECT_THAT(wordsOf(deployed(configuration, {"set", "start"}).listenAgain()),
                ElementsAre("stop", "start"));
    EXPECT_THAT(wordsOf(deployed(configuration, {"set", "start_lateral"}).listenAgain()),
                ElementsAre("add_lateral_peer", "start_lateral"));
}

TEST(Deployment, KeepsListeningIfASecondLateralStartIsRefused) {
    Deployment deployment = deployed(listeningWith(withLateral), {});
    deployment.note(outcomeOf({"start_lateral", {}, "the lateral stream"}, true));
    EXPECT_EQ(deployment.lateralListening(), true);
    EXPECT_FALSE(deployment.refusals().lateral);
}

TEST(Deployment, ForgetsARefusedFlowThatIsRemoved) {
    Deployment deployment = deployed(listeningWith(flowA + flowB), {"set"});
    for (const Command& command : deployment.change(listeningWith(flowB)).commands) {
        deployment.note(outcomeOf(command, false));
    }
    EXPECT_EQ(deployment.declaredFlows(), 1U);
    EXPECT_EQ(deployment.acceptedFlows(), 1U);
}

TEST(Deployment, AChangedLateralAddressIsOneCommandWhateverWasRefused) {
    const Configuration configuration = listeningWith(withLateral + flowA);
    Deployment deployment = deployed(configuration, {"set", "start", "start_lateral"});
    Lateral lateral = configuration.lateral.value();
    EXPECT_THAT(deployment.changeLateral(lateral), IsEmpty());
    lateral.peers.begin()->second = "127.0.0.9";
    EXPECT_THAT(wordsOf(deployment.changeLateral(lateral)), ElementsAre("add_lateral_peer"));
    EXPECT_THAT(deployment.changeLateral(lateral), IsEmpty());
}

TEST(Deployment, StartsTheLateralStreamWithTheFirstPeer) {
    Configuration configuration = listeningWith(withLateral);
    const std::optional<Lateral> lateral = std::exchange(configuration.lateral, std::nullopt);
    Deployment deployment = deployed(configuration, {});
    EXPECT_FALSE(deployment.lateralListening());
    EXPECT_THAT(wordsOf(deployment.changeLateral(lateral)),
                ElementsAre("add_lateral_peer", "start_lateral"));
    EXPECT_EQ(deployment.lateralListening(), false);
}

TEST(Deployment, ForgetsARefusedLateralStreamThatIsRemoved) {
    Deployment deployment = deployed(listeningWith(withLateral), {"start_lateral"});
    EXPECT_TRUE(deployment.refusals().lateral);
    EXPECT_THAT(deployment.change(listeningWith("")).commands, IsEmpty());
    EXPECT_FALSE(deployment.refusals().lateral);
    // The forwarder has the peers, but no stream.
    EXPECT_EQ(deployment.change(listeningWith(withLateral)).commands.size(), 2U);
}

TEST(Deployment, ForgetsRefusalsWithTheForwarder) {
    const Configuration configuration = listeningWith(flowA);
    Deployment deployment = deployed(configuration, {"set", "start", "start_lateral"});
    deployment.begin(configuration);
    EXPECT_EQ(deployment.acceptedFlows(), 1U);
    EXPECT_FALSE(deployment.refusals().downstream);
}

TEST(Deployment, DeletesOneFlow) {
    Deployment deployment = deployed(listeningWith(flowA + flowB), {"set"});
    ASSERT_EQ(deployment.remove(1).size(), 1U);
    EXPECT_THAT(deployment.refusals().flows, ElementsAre(2U));
    EXPECT_THAT(deployment.flowNames(), ElementsAre(Pair(2U, "b")));
    EXPECT_EQ(toLine(deployment.remove(2).front()), "del label 0x2");
    EXPECT_THAT(deployment.remove(2), IsEmpty());
}

}  // namespace
}  // namespace vesk::controller
