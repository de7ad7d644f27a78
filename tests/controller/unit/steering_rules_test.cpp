#include "steering/steering_rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/udp.h>

#include "config/instance_configurations.h"
#include "configuration_text.h"
#include "datapath/wire/layout.h"
#include "steering/steering_counters.h"
#include "steering/steering_map.h"

namespace vesk::controller {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr std::string_view twoInstances =
    "[downstream]\naddress = \"0.0.0.0\"\nport = 4500\ninstance_ports = [4501, 4503]\n"
    "[forwarder]\ninstances = 2\n";

std::string rulesFor(const std::string& host) {
    return steeringRules({host, 4500, 16, {4501, 4502}, 4501, 4503});
}

TEST(SteeringRules, TakeTheLabelFromTheFramingsPlace) {
    Configuration configuration = configurationOf(twoInstances);
    const SteeringPlan wanted = steeringPlan(configuration, {4502, 4503});
    EXPECT_EQ(wanted.host, "0.0.0.0");
    EXPECT_EQ(wanted.publicPort, 4500);
    EXPECT_EQ(wanted.firstPort, 4501);
    EXPECT_EQ(wanted.lastPort, 4503);
    EXPECT_EQ(wanted.ports, (std::vector<std::uint16_t>{4502, 4503}));
    // 8 bytes of the UDP header and 16 of the HMAC.
    EXPECT_THAT(steeringRules(wanted), AllOf(HasSubstr("@th,192,16 & 1 map @instances"),
                                             HasSubstr("udp length < 28 counter name too_short")));
    configuration.forwarder.framing = "udpv1";
    EXPECT_THAT(steeringRules(steeringPlan(configuration, {4502, 4503})),
                AllOf(HasSubstr("@th,336,16 & 1 map @instances"),
                      HasSubstr("udp length < 46 counter name too_short")));
}

TEST(SteeringRules, HaveTheLabelWhereTheForwarderHasIt) {
    Configuration configuration = configurationOf(twoInstances);
    for (const FramingDescriptor& framing : {framingV1, framingV2}) {
        configuration.forwarder.framing = "udpv" + std::to_string(framing.version);
        const SteeringPlan plan = steeringPlan(configuration, {4501, 4502});
        const std::size_t place = sizeof(udphdr) + framing.labelOffset;
        const std::string label = "@th," + std::to_string(8 * place) + ",";
        const std::string prefixBitsText = std::to_string(4 * framing.labelSize);
        const std::string labelBitsText = std::to_string(8 * framing.labelSize);
        const std::string whole = std::to_string(place + framing.labelSize);
        EXPECT_EQ(plan.labelOffset, framing.labelOffset);
        EXPECT_THAT(steeringRules(plan),
                    AllOf(HasSubstr("typeof " + label + prefixBitsText + " : udp dport"),
                          HasSubstr("typeof " + label + labelBitsText + " : udp dport"),
                          HasSubstr("udp length < " + whole + " counter name too_short")));
        EXPECT_THAT(steeringStay(plan, 4501, {7}),
                    AllOf(HasSubstr("udp length < " + whole + " return"),
                          HasSubstr(label + labelBitsText + " @moved return")));
    }
}

TEST(SteeringRules, MatchOnlyTheAddressesOfThisHost) {
    EXPECT_THAT(rulesFor("192.0.2.1"), AllOf(HasSubstr("ip daddr 192.0.2.1 jump steer"),
                                             HasSubstr("ip saddr 192.0.2.1 notrack udp sport set"),
                                             Not(HasSubstr("fib"))));
    EXPECT_THAT(rulesFor("::ffff:192.0.2.1"), HasSubstr("ip daddr 192.0.2.1 jump steer"));
    EXPECT_THAT(rulesFor("2001:db8::1"), HasSubstr("ip6 daddr 2001:db8::1 jump steer"));
    EXPECT_THAT(rulesFor("0.0.0.0"),
                HasSubstr("udp dport 4500 meta nfproto ipv4 fib daddr type local jump steer"));
    EXPECT_THAT(rulesFor("::"), HasSubstr("udp dport 4500 fib daddr type local jump steer"));
}

TEST(SteeringRules, ReplaceAllPortsInOneSwap) {
    EXPECT_EQ(steeringSwap(4500, {4503, 4502}),
              "flush map inet vesk_4500 instances\n"
              "add element inet vesk_4500 instances { 0 : 4503, 1 : 4502 }\n"
              "flush map inet vesk_4500 fallback\n"
              "add element inet vesk_4500 fallback { 4500 : 4503 }\n");
}

TEST(SteeringRules, LetLabelsStayAndFollowOneByOne) {
    const SteeringPlan plan{"127.0.0.1", 4500, 16, {4501, 4502}, 4501, 4503};
    EXPECT_EQ(steeringStay(plan, 4501, {}), "");
    EXPECT_EQ(steeringStay(plan, 4501, {65537, 2}),
              "add element inet vesk_4500 staying { 65537 : 4501, 2 : 4501 }\n"
              "add rule inet vesk_4500 stay udp length < 28 return\n"
              "add rule inet vesk_4500 stay @th,192,32 @moved return\n"
              "add rule inet vesk_4500 stay udp checksum 0 udp dport set @th,192,32 map @staying "
              "udp checksum set 0 accept\n"
              "add rule inet vesk_4500 stay udp dport set @th,192,32 map @staying accept\n");
    EXPECT_EQ(steeringFollow(4500, 65537), "add element inet vesk_4500 moved { 65537 }\n");
    EXPECT_EQ(steeringStayEnd(4500),
              "flush chain inet vesk_4500 stay\nflush map inet vesk_4500 staying\n"
              "flush set inet vesk_4500 moved\n");
}

TEST(SteeringMap, IsReadFromTheListingOfTheSameRules) {
    const SteeringPlan plan{"0.0.0.0", 4500, 16, {4501, 4502}, 4501, 4503};
    const std::string mark = steeringMark(plan);
    EXPECT_THAT(steeringRules(plan), HasSubstr("comment \"" + mark + "\""));
    const std::string listing =
        "table inet vesk_4500 {\n\tmap instances {\n\t\ttypeof @th,192,16 : udp dport\n"
        "\t\tcomment \"" +
        mark + "\"\n\t\telements = { 0x0 : 4503,\n\t\t\t     0x1f : 4502 }\n\t}\n}\n";
    EXPECT_EQ(parseSteeringMap(listing, mark), (SteeringMap{{0, 4503}, {0x1f, 4502}}));
    EXPECT_TRUE(parseSteeringMap(listing, mark + "0").empty());
    EXPECT_TRUE(parseSteeringMap(listing.substr(0, listing.find("elements")), mark).empty());
    EXPECT_TRUE(parseSteeringMap("", mark).empty());
}

TEST(SteeringMap, HasAMarkThatOnlyThePortsInUseDoNotChange) {
    const SteeringPlan plan{"0.0.0.0", 4500, 16, {4501, 4502}, 4501, 4503};
    const auto markAfter = [&](auto change) {
        SteeringPlan changed = plan;
        change(changed);
        return steeringMark(changed);
    };
    const std::string mark = steeringMark(plan);
    EXPECT_EQ(markAfter([](SteeringPlan& it) { it.ports = {4503, 4501}; }), mark);
    EXPECT_NE(markAfter([](SteeringPlan& it) { it.host = "::"; }), mark);
    EXPECT_NE(markAfter([](SteeringPlan& it) { it.publicPort = 4499; }), mark);
    EXPECT_NE(markAfter([](SteeringPlan& it) { it.labelOffset = 34; }), mark);
    EXPECT_NE(markAfter([](SteeringPlan& it) { it.ports = {1, 2, 3, 4}; }), mark);
    EXPECT_NE(markAfter([](SteeringPlan& it) { it.lastPort = 4504; }), mark);
}

TEST(SteeringCounters, AreReadFromTheListing) {
    const SteeringCounters counters = parseSteeringCounters(
        "table inet vesk_4500 {\n\tcounter too_short {\n\t\tpackets 1 bytes 30\n\t}\n\n"
        "\tcounter fragments {\n\t\tpackets 22 bytes 5\n\t}\n\n"
        "\tcounter direct {\n\t\tpackets 4 bytes 5\n\t}\n}\n");
    EXPECT_EQ(counters.tooShort, 1U);
    EXPECT_EQ(counters.fragments, 22U);
    EXPECT_EQ(counters.unmatched, 0U);
    EXPECT_EQ(counters.direct, 4U);
    EXPECT_EQ(parseSteeringCounters("").direct, 0U);
}

}  // namespace
}  // namespace vesk::controller
