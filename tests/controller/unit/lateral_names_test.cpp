// The index, the number of instances and the names of the peers, which the file can take from
// elsewhere.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "config/instance_configurations.h"
#include "config/lateral_number_reader.h"
#include "configuration_text.h"

namespace vesk::controller {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

constexpr const char* variableName = "VESK_TEST_NUMBER";

/// A variable of the environment for the length of a test.
class Variable {
 public:
    explicit Variable(const char* value) { setenv(variableName, value, 1); }
    ~Variable() { unsetenv(variableName); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;
};

std::string lateralTable(const std::string& lines) {
    return "[lateral]\naddress = \"10.0.0.1\"\nport = 9\n" + lines;
}

Lateral lateralOfTable(const std::string& lines) {
    return listeningWith(lateralTable(lines)).lateral.value();
}

std::string lateralProblems(const std::string& lines) {
    return problemsBesides(lateralTable(lines));
}

const std::string onePeer = "peers = [ { index = 0, address = \"10.0.0.2\" } ]\n";

TEST(LateralNumber, ComesFromTheEnvironment) {
    const Variable variable("2");
    EXPECT_EQ(
        lateralOfTable("index_from = \"env:VESK_TEST_NUMBER\"\ninstances = 3\n" + onePeer).index,
        2U);
    EXPECT_EQ(lateralOfTable("instances_from = \"env:VESK_TEST_NUMBER\"\nindex = 1\n" + onePeer)
                  .instances,
              2U);
}

TEST(LateralNumber, NamesTheVariableThatIsWrong) {
    const std::string lines = "index_from = \"env:VESK_TEST_NUMBER\"\ninstances = 3\n" + onePeer;
    const std::string begin =
        "4: lateral.index_from names the environment variable VESK_TEST_NUMBER, which is ";
    EXPECT_THAT(lateralProblems(lines), HasSubstr(begin + "not set"));
    struct Case {
        const char* value;
        const char* problem;
    };
    for (const Case& it :
         {Case{"", "empty"}, Case{"two", "not a number"}, Case{"-1", "not a number"},
          Case{" 1", "not a number"}, Case{"1 ", "not a number"},
          Case{"4294967296", "not from 0 to 4294967295"},
          Case{"99999999999999999999", "not from 0 to 4294967295"}}) {
        const Variable variable(it.value);
        EXPECT_THAT(lateralProblems(lines), HasSubstr(begin + it.problem));
    }
    const Variable variable("3");
    EXPECT_THAT(lateralProblems(lines),
                HasSubstr("4: lateral.index_from must be below the number of instances"));
}

TEST(LateralNumber, ThereIsAtLeastOneInstance) {
    const Variable variable("0");
    EXPECT_THAT(lateralProblems("instances_from = \"env:VESK_TEST_NUMBER\"\nindex = 0\n" + onePeer),
                HasSubstr("lateral.instances_from names the environment variable VESK_TEST_NUMBER, "
                          "which is not from 1 to 4294967295"));
}

TEST(LateralNumber, HasOneSource) {
    const Variable variable("1");
    EXPECT_THAT(lateralProblems(
                    "index = 1\nindex_from = \"env:VESK_TEST_NUMBER\"\ninstances = 2\n" + onePeer),
                HasSubstr("5: lateral.index_from and index are mutually exclusive"));
    EXPECT_THAT(lateralProblems("instances = 2\ninstances_from = \"env:VESK_TEST_NUMBER\"\n"
                                "index = 1\n" +
                                onePeer),
                HasSubstr("5: lateral.instances_from and instances are mutually exclusive"));
    EXPECT_THAT(lateralProblems("instances = 2\n" + onePeer),
                HasSubstr("lateral.index is missing"));
}

TEST(LateralNumber, RefusesAnotherSource) {
    for (const char* source : {"\"host\"", "\"env:\"", "\"\""}) {
        EXPECT_THAT(lateralProblems("index_from = " + std::string(source) + "\ninstances = 2\n"),
                    HasSubstr("lateral.index_from must be \"hostname\" or \"env:NAME\""));
    }
    EXPECT_THAT(lateralProblems("index_from = 1\ninstances = 2\n"),
                HasSubstr("lateral.index_from must be a string in quotes"));
    EXPECT_THAT(lateralProblems("instances_from = \"hostname\"\nindex = 0\n"),
                HasSubstr("lateral.instances_from must be \"env:NAME\""));
}

TEST(LateralNumber, IsCheckedAgainstTheInstancesOfTheHost) {
    const Variable variable("1");
    const std::string text =
        "[forwarder]\ninstances = 2\n[downstream]\naddress = \"::\"\nport = 4500\n"
        "instance_ports = [4501, 4503]\n[lateral]\naddresses = [\"::1\", \"::2\"]\nport = 9\n"
        "index_from = \"env:VESK_TEST_NUMBER\"\ninstances = 4\n" +
        onePeer;
    EXPECT_THAT(problemsOf(text),
                HasSubstr("lateral.index_from must be a multiple of forwarder.instances, 2"));
}

TEST(LateralNumber, IsTheOrdinalOfTheHostName) {
    EXPECT_EQ(ordinalOf("vesk-2"), "2");
    EXPECT_EQ(ordinalOf("vesk-edge-012"), "012");
    EXPECT_EQ(ordinalOf("vesk-2.zone-b.example"), "2");
    for (const char* name : {"vesk", "vesk-", "vesk-b", "vesk-2b", "", "-", "2"}) {
        EXPECT_EQ(ordinalOf(name), "") << name;
    }
}

std::string named(const std::string& names) {
    return "index = 1\ninstances = 3\npeers_from = " + names + "\n";
}

TEST(PeerNames, ComeFromATemplateWithoutTheOwnIndex) {
    const Lateral lateral = lateralOfTable(named("\"p{index}.zone{index}.example:9\""));
    EXPECT_THAT(lateral.peerNames,
                ElementsAre(Pair(0U, "p0.zone0.example"), Pair(2U, "p2.zone2.example")));
    EXPECT_THAT(lateral.peers, IsEmpty());
    EXPECT_EQ(lateral.resolve, std::chrono::seconds(30));
}

TEST(PeerNames, ComeFromAnArrayByIndex) {
    const Lateral lateral =
        lateralOfTable(named("[\"a:9\", \"b:9\", \"10.0.0.7:9\"]") + "resolve_seconds = 86400\n");
    EXPECT_THAT(lateral.peerNames, ElementsAre(Pair(0U, "a"), Pair(2U, "10.0.0.7")));
    EXPECT_EQ(lateral.resolve, std::chrono::seconds(86400));
    EXPECT_THAT(lateralOfTable(named("[\"[::1]:9\", \"b:9\", \"c_d:9\"]")).peerNames,
                ElementsAre(Pair(0U, "::1"), Pair(2U, "c_d")));
}

TEST(PeerNames, LeaveOutAllInstancesOfTheHost) {
    const Configuration configuration = configurationOf(
        "[forwarder]\ninstances = 2\n[downstream]\naddress = \"::\"\nport = 4500\n"
        "instance_ports = [4501, 4503]\n[lateral]\naddresses = [\"::1\", \"::2\"]\nport = 9\n"
        "index = 2\ninstances = 4\npeers_from = \"p{index}:9\"\n");
    EXPECT_THAT(configuration.lateral->peerNames, ElementsAre(Pair(0U, "p0"), Pair(1U, "p1")));
    const auto parts = instanceConfigurations(configuration, firstPorts(configuration));
    EXPECT_THAT(parts[0].lateral->peers, ElementsAre(Pair(3U, "::2")));
}

TEST(PeerNames, NoStreamStartsWithoutAPeer) {
    Configuration configuration = listeningWith(lateralTable(named("\"p{index}:9\"")));
    EXPECT_FALSE(instanceConfigurations(configuration, {4500}).front().lateral);
    configuration.lateral->peers.emplace(0, "10.0.0.2");
    EXPECT_TRUE(instanceConfigurations(configuration, {4500}).front().lateral);
}

TEST(PeerNames, AreRefusedWithTheirPlace) {
    struct Case {
        const char* names;
        const char* problem;
    };
    for (const Case& it :
         {Case{"\"p.example:9\"",
               "6: lateral.peers_from must contain {index}, or be an array of names"},
          Case{"1", "lateral.peers_from must be a string or an array of strings"},
          Case{"[\"a:9\"]",
               "lateral.peers_from must contain 3 names, one for each of "
               "lateral.instances"},
          Case{"\"p{index}:10\"",
               "lateral.peers_from must have the port of lateral.port, 9, which is "
               "the same on all instances"}}) {
        EXPECT_THAT(lateralProblems(named(it.names)), HasSubstr(it.problem));
    }
    for (const char* names : {"\"p{index}\"", "\"p{index}:\"", "\"p{index}:0\"", "\":9{index}\"",
                              "\"p {index}:9\"", "\"::{index}:9\"", "[\"a:9\", 1, \"c:9\"]"}) {
        EXPECT_THAT(lateralProblems(named(names)),
                    HasSubstr("lateral.peers_from must have names and ports like "
                              "\"vesk-0.example:8445\""))
            << names;
    }
    EXPECT_THAT(lateralProblems(named("\"p{index}:9\"") + onePeer),
                HasSubstr("6: lateral.peers_from and peers are mutually exclusive"));
    EXPECT_THAT(lateralProblems("index = 0\ninstances = 1025\npeers_from = \"p{index}:9\"\n"),
                HasSubstr("lateral.peers_from names at most 1024 instances"));
    for (const char* pause : {"0", "86401"}) {
        EXPECT_THAT(lateralProblems(named("\"p{index}:9\"") + "resolve_seconds = " + pause),
                    HasSubstr("lateral.resolve_seconds must be an integer from 1 to 86400"));
    }
}

}  // namespace
}  // namespace vesk::controller
