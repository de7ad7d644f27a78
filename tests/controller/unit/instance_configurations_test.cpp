#include "config/instance_configurations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "configuration_text.h"

namespace vesk::controller {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Key;
using testing::Pair;

std::string file(std::string_view rest, std::string_view instances = "2") {
    return "[forwarder]\ninstances = " + std::string(instances) +
           "\n[downstream]\naddress = \"::\"\nport = 4500\n" + std::string(rest);
}

std::string flow(const std::string& name, const std::string& label, const std::string& more = "") {
    return "[flows." + name + "]\nlabel = " + label + "\nupstream = \"127.0.0.1:5000\"\n" + more +
           "\n";
}

std::vector<Configuration> partsOf(const std::string& text) {
    const Configuration whole = configurationOf(text);
    return instanceConfigurations(whole, firstPorts(whole));
}

TEST(InstanceConfigurations, OfOneInstanceIsTheFileItself) {
    const Configuration whole = listeningWith(flow("a", "0x10001") + flow("b", "2"));
    EXPECT_FALSE(isSteered(whole));
    EXPECT_THAT(firstPorts(whole), ElementsAre(4500));
    const std::vector<Configuration> parts = instanceConfigurations(whole, firstPorts(whole));
    ASSERT_EQ(parts.size(), 1U);
    EXPECT_EQ(parts[0].downstream, whole.downstream);
    EXPECT_THAT(parts[0].flows, ElementsAre(Key(2U), Key(0x10001U)));
}

TEST(InstanceConfigurations, OfOneSteeredInstanceDiffersInItsPort) {
    const std::vector<Configuration> parts =
        partsOf(file("instance_ports = [4501, 4502]\n" + flow("a", "0x10001"), "1"));
    ASSERT_EQ(parts.size(), 1U);
    EXPECT_EQ(parts[0].downstream, (HostPort{"::", 4501}));
    EXPECT_FALSE(parts[0].lateral);
    EXPECT_FALSE(isSteered(parts[0]));
    EXPECT_THAT(parts[0].flows, ElementsAre(Key(0x10001U)));
}

TEST(InstanceConfigurations, HaveTheFlowsByTheUpperBitsOfTheLabel) {
    const std::vector<Configuration> parts =
        partsOf(file("instance_ports = [4501, 4505]\n" + flow("a", "0x40001") +
                         flow("b", "0xffff0002") + flow("c", "0x10000") + flow("d", "3"),
                     "4"));
    ASSERT_EQ(parts.size(), 4U);
    EXPECT_THAT(parts[0].flows, ElementsAre(Key(3U), Key(0x40001U)));
    EXPECT_THAT(parts[1].flows, ElementsAre(Key(0x10000U)));
    EXPECT_THAT(parts[2].flows, ElementsAre());
    EXPECT_THAT(parts[3].flows, ElementsAre(Key(0xffff0002U)));
    EXPECT_EQ(parts[3].downstream.port, 4504);
}

TEST(InstanceConfigurations, DeclareAFlowOnBothOwnersOfItsLabelAndItsPrefix) {
    const std::vector<Configuration> parts = partsOf(
        file("instance_ports = [4501, 4503]\n" +
             flow("here", "0x10001", "auxiliary = { prefix = 3, upstream_label = 0x30000 }") +
             flow("apart", "0x10002", "auxiliary = { prefix = 4, upstream_label = 0x40000 }")));
    EXPECT_THAT(parts[0].flows, ElementsAre(Key(0x10002U)));
    EXPECT_EQ(parts[0].flows.at(0x10002).auxiliary->prefix, 4);
    EXPECT_EQ(parts[1].flows.at(0x10001).auxiliary->prefix, 3);
    EXPECT_FALSE(parts[1].flows.at(0x10002).auxiliary);
    EXPECT_TRUE(parts[0].flows.at(0x10002).onTwoInstances);
    EXPECT_TRUE(parts[1].flows.at(0x10002).onTwoInstances);
    EXPECT_FALSE(parts[1].flows.at(0x10001).onTwoInstances);
}

TEST(InstanceConfigurations, JoinTheInstancesByAddressesThatDependOnTheirPorts) {
    const Configuration whole = configurationOf(file("instance_ports = [4501, 4503]\n"));
    const std::vector<Configuration> parts = instanceConfigurations(whole, {4501, 4503});
    const Lateral& first = parts[0].lateral.value();
    EXPECT_EQ(first.listen, (HostPort{"127.86.0.1", 4504}));
    EXPECT_EQ(first.index, 0U);
    EXPECT_EQ(first.instances, 2U);
    EXPECT_THAT(first.peers, ElementsAre(Pair(1U, "127.86.0.3")));
    const Lateral& second = parts[1].lateral.value();
    EXPECT_EQ(second.listen, (HostPort{"127.86.0.3", 4504}));
    EXPECT_EQ(second.index, 1U);
    EXPECT_THAT(second.peers, ElementsAre(Pair(0U, "127.86.0.1")));
}

constexpr std::string_view twoHosts =
    "instance_ports = [4501, 4503]\n[lateral]\naddresses = [\"10.0.0.2\", \"10.0.1.2\"]\n"
    "port = 8445\nindex = 2\ninstances = 4\n"
    "peers = [{ index = 0, address = \"10.0.0.1\" }, { index = 1, address = \"10.0.1.1\" }]\n";

TEST(InstanceConfigurations, HaveAnAddressEachInAStreamOfSeveralHosts) {
    const std::vector<Configuration> parts = partsOf(file(twoHosts));
    const Lateral& second = parts[1].lateral.value();
    EXPECT_EQ(second.listen, (HostPort{"10.0.1.2", 8445}));
    EXPECT_EQ(second.index, 3U);
    EXPECT_EQ(second.instances, 4U);
    EXPECT_THAT(second.peers,
                ElementsAre(Pair(0U, "10.0.0.1"), Pair(1U, "10.0.1.1"), Pair(2U, "10.0.0.2")));
    EXPECT_TRUE(second.addresses.empty());
}

TEST(InstanceConfigurations, OwnInTheStreamWhatIsSteeredToThem) {
    const Configuration whole = configurationOf(file(twoHosts));
    const std::vector<Configuration> parts = instanceConfigurations(whole, firstPorts(whole));
    for (std::uint32_t prefix = 0; prefix < 16; ++prefix) {
        const Lateral& part = parts[instanceOf(whole, prefix)].lateral.value();
        const std::uint32_t owner = prefix % part.instances;
        EXPECT_EQ(owner % 2, part.index % 2) << prefix;
        EXPECT_EQ(part.isHere(owner), owner == 2 + instanceOf(whole, prefix)) << prefix;
    }
}

TEST(Instances, AreAPowerOfTwo) {
    for (const char* const number : {"0", "3", "65", "128", "\"2\""}) {
        EXPECT_THAT(problemsOf(file("instance_ports = [4501, 4800]\n", number)),
                    HasSubstr("forwarder.instances must be"))
            << number;
    }
}

TEST(Instances, NeedAPortEachAndOneForAReplacement) {
    EXPECT_EQ(problemsOf(file("")),
              "3: downstream.instance_ports is missing: several instances need ports of their "
              "own\n");
    EXPECT_THAT(problemsOf(file("instance_ports = [4501, 4502]\n")),
                HasSubstr("must be at least 3 ports: one for each instance, and one for"));
    EXPECT_THAT(problemsOf(file("instance_ports = [4499, 4505]\n")),
                HasSubstr("contains downstream.port"));
    for (const char* const ports : {"4501", "[4501]", "[4503, 4501]", "[0, 4]", "[4501, 65536]",
                                    "[\"4501\", 4503]", "[4501, 4503, 4505]"}) {
        EXPECT_THAT(problemsOf(file("instance_ports = " + std::string(ports))),
                    HasSubstr("must be "))
            << ports;
    }
}

TEST(Instances, HaveAPortForTheirLateralStream) {
    const auto portOf = [](std::string_view text) {
        return configurationOf(file(text)).instancePorts->lateral;
    };
    EXPECT_EQ(portOf("instance_ports = [4501, 4503]\n"), 4504);
    EXPECT_EQ(portOf("instance_ports = [4501, 4503]\nlateral_port = 9\n"), 9);
    EXPECT_THAT(problemsOf(file("instance_ports = [4501, 4503]\nlateral_port = 4502\n")),
                HasSubstr("lateral_port is one of downstream.instance_ports"));
    EXPECT_THAT(problemsOf(file("instance_ports = [4501, 4503]\nlateral_port = 4500\n")),
                HasSubstr("lateral_port is one of"));
    EXPECT_THAT(problemsOf(file("instance_ports = [4497, 4499]\n")),
                HasSubstr("lateral_port is missing"));
    EXPECT_THAT(problemsOf(file("instance_ports = [65533, 65535]\n")),
                HasSubstr("lateral_port is missing"));
    EXPECT_THAT(problemsOf(file("instance_ports = [4501, 4503]\nlateral_port = 9\n", "1")),
                HasSubstr("lateral_port requires several forwarder.instances"));
}

TEST(Instances, AreCheckedWithTheLateralTable) {
    const auto with = [](const std::string& from, const std::string& to) {
        std::string text(twoHosts);
        text.replace(text.find(from), from.size(), to);
        return problemsOf(file(text));
    };
    EXPECT_THAT(with("index = 2", "index = 1"),
                HasSubstr("lateral.index must be a multiple of forwarder.instances, 2"));
    EXPECT_THAT(with("instances = 4", "instances = 5"),
                HasSubstr("lateral.instances must be a multiple of forwarder.instances, 2"));
    EXPECT_THAT(with(", \"10.0.1.2\"", ""), HasSubstr("must contain 2 addresses, one for each"));
    EXPECT_THAT(with("10.0.1.2", "10.0.0.2"), HasSubstr("contains an address twice"));
    EXPECT_THAT(with("\"10.0.1.2\"", "3"), HasSubstr("must contain numeric addresses"));
    EXPECT_THAT(with("addresses", "address"), HasSubstr("lateral.addresses is missing"));
    EXPECT_THAT(with("{ index = 1", "{ index = 3"),
                HasSubstr("is the index of an instance of this host"));
    EXPECT_THAT(with("8445", "4502"), HasSubstr("port is one of downstream.instance_ports"));
    EXPECT_THAT(with("8445", "4500"), HasSubstr("port is the same as downstream.port"));
}

TEST(Instances, RefuseASourceThatIsOneOfTheirPortsOrShared) {
    const std::string ports = "instance_ports = [4501, 4503]\n";
    const auto problems = [&](const std::string& flows) { return problemsOf(file(ports + flows)); };
    const std::string shared = "multiplex = true\nsource = \"127.0.0.1:7000\"\n";
    EXPECT_THAT(problems(flow("a", "1", "source = \"127.0.0.1:4502\"")),
                HasSubstr("flows.a.source has one of downstream.instance_ports"));
    EXPECT_THAT(problems(flow("a", "1", shared) + flow("b", "0x10001", shared)),
                HasSubstr("flows.b.source is also that of flows.a, which belongs to another"));
    EXPECT_EQ(problems(flow("a", "1", shared) + flow("b", "0x20001", shared)), "");
    EXPECT_THAT(
        problems(flow("a", "1", shared + "auxiliary = { prefix = 3, upstream_label = 0x30000 }")),
        HasSubstr("flows.a.source is also that of flows.a"));
}

TEST(InstanceConfigurations, HaveANextByItsOwnLabel) {
    const std::vector<Configuration> parts = partsOf(file(
        "instance_ports = [4501, 4503]\n" + flow("a", "0x20001", "next = { label = 0x10001 }")));
    EXPECT_THAT(parts[0].flows, ElementsAre(Key(0x20001U)));
    EXPECT_THAT(parts[1].flows, ElementsAre(Key(0x10001U)));
    EXPECT_TRUE(parts[1].flows.at(0x10001).isNext);
}

TEST(Instances, RefuseANextOfAnotherInstanceThatSharesTheSource) {
    const std::string shared = "multiplex = true\nsource = \"127.0.0.1:7000\"\n";
    EXPECT_THAT(problemsOf(file("instance_ports = [4501, 4503]\n" +
                                flow("a", "0x20001",
                                     shared + "next = { label = 0x10001, "
                                              "to_upstream = { label = 9 } }"))),
                HasSubstr("flows.a.next.source is also that of flows.a, which belongs to another"));
    EXPECT_THAT(
        problemsOf(file("instance_ports = [4501, 4503]\n" +
                        flow("a", "1", "next = { label = 2, source = \"127.0.0.1:4502\" }"))),
        HasSubstr("flows.a.next.source has one of downstream.instance_ports"));
}

}  // namespace
}  // namespace vesk::controller
