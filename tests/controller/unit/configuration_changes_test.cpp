#include "commands/configuration_changes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "configuration_text.h"

namespace vesk::controller {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> changedLines(const std::vector<Command>& commands) {
    std::vector<std::string> lines;
    lines.reserve(commands.size());
    for (const Command& command : commands) {
        lines.push_back(toLine(command));
    }
    return lines;
}

ConfigurationChanges changes(const std::string& before, const std::string& after,
                             const Refusals& refusals = {}) {
    return changesBetween(listeningWith(before), listeningWith(after), refusals);
}

std::vector<std::string> linesBetween(const std::string& before, const std::string& after,
                                      const Refusals& refusals = {}) {
    return changedLines(changes(before, after, refusals).commands);
}

/// A flow whose upstream port is its label, with further keys.
std::string flow(const std::string& name, int label, const std::string& more = "") {
    return "[flows." + name + "]\nlabel = " + std::to_string(label) +
           "\nupstream = \"127.0.0.1:" + std::to_string(label) + "\"\n" + more + "\n";
}

std::string prefix(int number) {
    return "auxiliary = { prefix = " + std::to_string(number) + ", upstream_label = 1 }";
}

const std::string aux = " down_aux_flow_label_prefix ";

TEST(ConfigurationChanges, AreEmptyIfNothingChanged) {
    const std::string text = flow("a", 1, "to_peer = { key = \"0a\", label = 9 }");
    EXPECT_THAT(linesBetween(text, text), IsEmpty());
    // The forwarder does not know names, and the case of hex digits does not matter.
    EXPECT_THAT(linesBetween(text, flow("b", 1, "to_peer = { key = \"0A\", label = 9 }")),
                IsEmpty());
}

TEST(ConfigurationChanges, TouchOnlyTheFlowsThatChanged) {
    EXPECT_THAT(
        linesBetween(flow("a", 1) + flow("b", 2) + flow("c", 3),
                     flow("a", 1) + flow("b", 2, "to_peer = { label = 9 }") + flow("d", 4)),
        ElementsAre("del label 0x3", "set label 0x2 up_ip 127.0.0.1 up_port 2 down_label 0x9",
                    "set label 0x4 up_ip 127.0.0.1 up_port 4"));
}

TEST(ConfigurationChanges, DeleteAFlowThatLosesAnAttribute) {
    EXPECT_THAT(
        linesBetween(flow("a", 1, "to_peer = { key = \"0a\", label = 9 }"),
                     flow("a", 1, "to_peer = { label = 9 }")),
        ElementsAre("del label 0x1", "set label 0x1 up_ip 127.0.0.1 up_port 1 down_label 0x9"));
}

TEST(ConfigurationChanges, ReleasePrefixesBeforeTheyAreClaimed) {
    EXPECT_THAT(
        linesBetween(flow("a", 1, prefix(5)) + flow("b", 2, prefix(6)) + flow("c", 3),
                     flow("a", 1, prefix(6)) + flow("b", 2) + flow("c", 3, prefix(5))),
        ElementsAre("del label 0x1", "del label 0x2",
                    "set label 0x1 up_ip 127.0.0.1 up_port 1" + aux + "6 up_aux_flow_label 0x1",
                    "set label 0x2 up_ip 127.0.0.1 up_port 2",
                    "set label 0x3 up_ip 127.0.0.1 up_port 3" + aux + "5 up_aux_flow_label 0x1"));
}

TEST(ConfigurationChanges, DeleteALabelThatMayBeAnAuxiliaryFlow) {
    const std::string owner = flow("owner", 1, prefix(5));
    const std::string newFlow = "[flows.new]\nlabel = 0x50001\nupstream = \"127.0.0.1:7\"\n";
    const std::string newSet = "set label 0x50001 up_ip 127.0.0.1 up_port 7";
    EXPECT_THAT(linesBetween(owner, owner + newFlow), ElementsAre("del label 0x50001", newSet));
    EXPECT_THAT(
        linesBetween("", owner + newFlow),
        ElementsAre("set label 0x1 up_ip 127.0.0.1 up_port 1" + aux + "5 up_aux_flow_label 0x1",
                    "del label 0x50001", newSet));
    EXPECT_THAT(linesBetween(owner + newFlow, newFlow), ElementsAre("del label 0x1"));
    EXPECT_THAT(linesBetween(flow("a", 1, prefix(6)), flow("a", 1, prefix(6)) + newFlow),
                ElementsAre(newSet));
}

TEST(ConfigurationChanges, RepeatRefusedCommands) {
    const Refusals refusals{{2}, true, false};
    EXPECT_THAT(linesBetween(flow("a", 1) + flow("b", 2), flow("a", 1) + flow("b", 2), refusals),
                ElementsAre("del label 0x2", "set label 0x2 up_ip 127.0.0.1 up_port 2", "stop",
                            "start addr 127.0.0.1 port 4500"));
}

TEST(ConfigurationChanges, ChangeTheDownstreamAddressAndTheLogLevel) {
    Configuration wanted = configurationOf(listening);
    wanted.downstream.port = 4501;
    wanted.forwarder.logLevel = "debug";
    const ConfigurationChanges result = changesBetween(configurationOf(listening), wanted, {});
    EXPECT_THAT(changedLines(result.commands),
                ElementsAre("log priority debug", "stop", "start addr 127.0.0.1 port 4501"));
    EXPECT_THAT(result.waiting, IsEmpty());
    EXPECT_EQ(result.after.downstream.port, 4501);
}

TEST(ConfigurationChanges, KeepTheArgumentsOfTheRunningProgram) {
    const ConfigurationChanges result =
        changes("",
                "[forwarder]\nframing = \"udpv1\"\ncleanup_interval = 1\nprogram = \"x\"\n"
                "expire_main_flows = false\nexpire_auxiliary_flows = false\n"
                "ipv4_source = \"kernel\"");
    EXPECT_THAT(result.commands, IsEmpty());
    EXPECT_THAT(result.waiting,
                ElementsAre("forwarder.program", "forwarder.framing", "forwarder.cleanup_interval",
                            "forwarder.expire_main_flows", "forwarder.expire_auxiliary_flows",
                            "forwarder.ipv4_source"));
    EXPECT_EQ(result.after.forwarder.framing, "udpv2");
    EXPECT_EQ(result.after.forwarder.cleanupInterval, std::chrono::seconds(600));
}

std::string lateral(int port, const std::string& peers) {
    return "[lateral]\naddress = \"127.0.0.1\"\nport = " + std::to_string(port) +
           "\nindex = 0\ninstances = 9\npeers = [" + peers + "]\n";
}

const std::string peer1 = "{ index = 1, address = \"127.0.0.2\" }";
const std::string peer2 = "{ index = 2, address = \"127.0.0.3\" }";
const std::string started = "start_lateral addr 127.0.0.1 port 1 idx 0 max_qels 9";

TEST(ConfigurationChanges, StartANewLateralStream) {
    EXPECT_THAT(linesBetween("", lateral(1, peer1)),
                ElementsAre("add_lateral_peer idx 1 addr 127.0.0.2", started));
}

TEST(ConfigurationChanges, AddLateralPeersWhileTheStreamRuns) {
    const ConfigurationChanges result = changes(lateral(1, peer1), lateral(1, peer1 + "," + peer2));
    EXPECT_THAT(changedLines(result.commands),
                ElementsAre("add_lateral_peer idx 2 addr 127.0.0.3"));
    EXPECT_THAT(result.waiting, IsEmpty());
    EXPECT_EQ(result.after.lateral->peers.size(), 2U);
}

TEST(ConfigurationChanges, DeferTheRemovalOfALateralPeer) {
    const ConfigurationChanges result = changes(lateral(1, peer1 + "," + peer2), lateral(1, peer2));
    EXPECT_THAT(result.commands, IsEmpty());
    EXPECT_THAT(result.waiting, ElementsAre("lateral.peers"));
    EXPECT_EQ(result.after.lateral->peers.size(), 2U);
}

TEST(ConfigurationChanges, DeferAMoveOrRemovalOfTheLateralStream) {
    for (const std::string& after : {lateral(2, peer1), std::string()}) {
        const ConfigurationChanges result = changes(lateral(1, peer1), after);
        EXPECT_THAT(result.commands, IsEmpty());
        EXPECT_THAT(result.waiting, ElementsAre("lateral"));
        EXPECT_EQ(result.after.lateral->listen.port, 1);
    }
}

TEST(ConfigurationChanges, StartARefusedLateralStreamAgain) {
    const ConfigurationChanges result =
        changes(lateral(2, peer1), lateral(1, peer1), Refusals{{}, false, true});
    EXPECT_THAT(changedLines(result.commands),
                ElementsAre("add_lateral_peer idx 1 addr 127.0.0.2", started));
    EXPECT_THAT(result.waiting, IsEmpty());
}

TEST(ConfigurationChanges, OfANextLabelLeaveBothLabelsAlone) {
    const std::string old =
        flow("a", 1, "from_peer = { key = \"01\" }\nto_upstream = { key = \"0a\" }");
    const std::string both =
        old + "next = { label = 2, from_peer = { key = \"02\" }, to_upstream = { dscp = 1 } }\n";
    EXPECT_THAT(linesBetween(old, both),
                ElementsAre("set label 0x2 up_ip 127.0.0.1 up_port 1 down_in_key 02 "
                            "down_in_algo sha256 up_out_key 0a up_out_algo sha256 up_out_dscp_v4 1 "
                            "up_out_dscp_v6 1"));
    // The file in which next is the flow itself deletes the old label, and only that.
    EXPECT_THAT(linesBetween(both,
                             "[flows.a]\nlabel = 2\nupstream = \"127.0.0.1:1\"\n"
                             "from_peer = { key = \"02\" }\n"
                             "to_upstream = { key = \"0a\", dscp = 1 }\n"),
                ElementsAre("del label 0x1"));
    EXPECT_THAT(linesBetween(both, old), ElementsAre("del label 0x2"));
}

TEST(ConfigurationChanges, NameTheNextOfAFlow) {
    EXPECT_EQ(listSubjects(changes("", flow("a", 1, "next = { label = 2 }")).commands),
              "flow a, next of flow a");
}

}  // namespace
}  // namespace vesk::controller
