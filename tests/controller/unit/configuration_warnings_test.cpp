#include "config/configuration_warnings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "configuration_text.h"
#include "warning_matchers.h"

namespace vesk::controller {
namespace {

using testing::AllOf;
using testing::ElementsAre;

constexpr std::string_view everywhere = "[downstream]\naddress = \"0.0.0.0\"\nport = 4500\n";

std::string warnedFlow(const std::string& name, int label, const std::string& rest) {
    return "[flows." + name + "]\nlabel = " + std::to_string(label) +
           "\nupstream = \"127.0.0.1:1\"\n" + rest + "\n";
}

std::vector<std::string> warningsOf(const std::string& text) {
    return configurationWarnings(configurationOf(text));
}

std::vector<std::string> warningsBesides(const std::string& text) {
    return warningsOf(text + std::string(listening));
}

TEST(ConfigurationWarnings, AreEmptyForAFlowWithItsOwnKeys) {
    EXPECT_THAT(
        warningsOf(warnedFlow("a", 1,
                              "from_peer = { key = \"abababababababababababababababab\" "
                              "}\nto_peer = { key = \"cdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcd\" }") +
                   std::string(everywhere)),
        hasNoWarning());
}

TEST(ConfigurationWarnings, NameFlowsWithoutAnyKeyOnAPublicAddress) {
    const std::string flows =
        warnedFlow("a", 1, "") +
        warnedFlow("b", 2, "to_peer = { key = \"abababababababababababababababab\" }") +
        warnedFlow("c", 3, "to_upstream = { label = 9 }");
    EXPECT_THAT(
        warningsOf(flows + std::string(everywhere)),
        AllOf(isOneWarningWith("2 flows have no key", "0.0.0.0", "a, c"), showsNowhere("b,")));
    for (const char* const address : {"127.0.0.1", "127.3.2.1", "::1", "::ffff:127.0.0.1"}) {
        EXPECT_THAT(warningsOf(flows + "[downstream]\naddress = \"" + address + "\"\nport = 1\n"),
                    hasNoWarning())
            << address;
    }
    for (const char* const address : {"::", "192.0.2.1", "::ffff:192.0.2.1", "fe80::1"}) {
        EXPECT_THAT(warningsOf(flows + "[downstream]\naddress = \"" + address + "\"\nport = 1\n"),
                    isOneWarningWith("have no key"))
            << address;
    }
}

TEST(ConfigurationWarnings, CountFindingsThatTheyDoNotName) {
    std::string flows;
    for (int label = 1; label <= 20; ++label) {
        flows += warnedFlow("flow" + std::to_string(label), label, "");
    }
    EXPECT_THAT(warningsOf(flows + std::string(everywhere)),
                isOneWarningWith("20 flows have no key", "flow1, flow2, flow3 and 17 more"));
}

TEST(ConfigurationWarnings, NameTheUsesOfASharedKey) {
    const std::string key = "{ key = \"7e7e7e7e7e7e7e7e7e7e7e7e7e7e7e7e\" }";
    EXPECT_THAT(warningsBesides(warnedFlow("a", 1, "from_peer = " + key + "\nto_peer = " + key)),
                AllOf(isOneWarningWith("1 key is used for several",
                                       "flows.a.from_peer and flows.a.to_peer"),
                      showsNowhere("7e7e")));
    EXPECT_THAT(
        warningsBesides(warnedFlow("a", 1, "from_peer = " + key) +
                        warnedFlow("b", 2,
                                   "to_upstream = { key = \"7E7E7E7E7E7E7E7E7E7E7E7E7E7E7E7E\", "
                                   "algorithm = \"sha1\" }")),
        isOneWarningWith("flows.a.from_peer and flows.b.to_upstream"));
}

TEST(ConfigurationWarnings, NameShortKeys) {
    const std::string fifteen(30, 'a');
    const std::string sixteen(32, 'b');
    EXPECT_THAT(
        warningsBesides(warnedFlow("a", 1, "from_peer = { key = \"" + fifteen + "\" }") +
                        warnedFlow("b", 2, "to_peer = { key = \"" + sixteen + "\" }")),
        ElementsAre("1 key is shorter than 16 bytes and can be guessed: flows.a.from_peer"));
}

TEST(ConfigurationWarnings, ReportAFileWithoutFlows) {
    EXPECT_THAT(warningsOf(std::string(listening)),
                ElementsAre("there are no flows: all datagrams from peers will be dropped"));
}

TEST(ConfigurationWarnings, NameLabelsAndPrefixesOfAnotherInstance) {
    const std::string lateral =
        "[lateral]\naddress = \"127.0.0.1\"\nport = 1\nindex = 1\ninstances = 2\n"
        "peers = [{ index = 0, address = \"127.0.0.2\" }]\n";
    EXPECT_THAT(warningsBesides(lateral + warnedFlow("mine", 0x10001, "") +
                                warnedFlow("other", 0x20001, "")),
                isOneWarningWith("1 label or prefix belongs to another instance",
                                 "flows.other (label 0x20001, instance 0)"));
    EXPECT_THAT(
        warningsBesides(lateral + warnedFlow("mine", 0x10001,
                                             "auxiliary = { prefix = 4, upstream_label = 1 }")),
        isOneWarningWith("flows.mine (prefix 0x4, instance 0)"));
    EXPECT_THAT(warningsBesides(warnedFlow("alone", 0x20001, "")), hasNoWarning());
}

TEST(ConfigurationWarnings, CountTheInstancesMissingFromPeers) {
    EXPECT_THAT(
        warningsBesides(warnedFlow("a", 1, "") +
                        "[lateral]\naddress = \"127.0.0.1\"\nport = 1\nindex = 0\n"
                        "instances = 4\npeers = [{ index = 2, address = \"127.0.0.2\" }]\n"),
        isOneWarningWith("lateral.peers names 1 of the 3 other instances", "missing: 1, 3"));
    EXPECT_THAT(warningsBesides(
                    warnedFlow("a", 1, "") +
                    "[lateral]\naddress = \"127.0.0.1\"\nport = 1\nindex = 0\n"
                    "instances = 4294967295\npeers = [{ index = 2, address = \"127.0.0.2\" }]\n"),
                isOneWarningWith("missing: 1, 3, 4 and 4294967290 more"));
}

TEST(ConfigurationWarnings, NameSourcesThatTheKernelMayReplace) {
    const std::string sources =
        warnedFlow("a", 1, "source = \"127.0.0.9:7\"") +
        "[flows.b]\nlabel = 2\nupstream = \"[::1]:1\"\nsource = \"[::1]:7\"\n";
    EXPECT_THAT(warningsBesides("[forwarder]\nipv4_source = \"kernel\"\n" + sources),
                isOneWarningWith("1 flow has an IPv4 source", "ipv4_source = \"arrival\"", ": a"));
    EXPECT_THAT(warningsBesides(sources), hasNoWarning());
}

TEST(ConfigurationWarnings, DoNotShowANameThatMayBeAKey) {
    EXPECT_THAT(warningsOf(warnedFlow("7e7e7e7e7e7e7e7e7e7e7e7e7e7e7e7e7e7e", 1, "") +
                           std::string(everywhere)),
                AllOf(isOneWarningWith("1 flow has no key"), showsNowhere("7e7e")));
}

const std::string nextKeys =
    "from_peer = { key = \"0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a\" }\n"
    "to_upstream = { key = \"0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b\" }\n";

TEST(ConfigurationWarnings, NameKeysThatANextDoesNotChange) {
    // What next does not give is inherited, and no mistake.
    EXPECT_THAT(
        warningsBesides(warnedFlow("a", 1,
                                   nextKeys + "next = { label = 2, from_peer = "
                                              "{ key = \"1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a\" } }")),
        hasNoWarning());
    EXPECT_THAT(
        warningsBesides(
            warnedFlow("a", 1,
                       nextKeys + "[flows.a.next]\nlabel = 2\nfrom_peer = "
                                  "{ key = \"0A0A0A0A0A0A0A0A0A0A0A0A0A0A0A0A\" }\nto_upstream = "
                                  "{ key = \"0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b\" }")),
        AllOf(isOneWarningWith("2 keys in next equal that of the flow, so the old key stays valid",
                               "flows.a.next.from_peer, flows.a.next.to_upstream"),
              showsNowhere("0a0a")));
    EXPECT_THAT(
        warningsBesides(warnedFlow("a", 1,
                                   nextKeys + "next = { label = 2, from_peer = "
                                              "{ key = \"0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b\" } }")),
        isOneWarningWith("1 key is used for several",
                         "flows.a.to_upstream and flows.a.next.from_peer"));
}

TEST(ConfigurationWarnings, NameANextWithoutAnyKey) {
    EXPECT_THAT(warningsOf(warnedFlow("a", 1, "next = { label = 2 }") + std::string(everywhere)),
                isOneWarningWith("2 flows have no key", "a, next of a"));
}

TEST(ConfigurationWarnings, NameFlowsWhoseOldLabelMayLookSilent) {
    const std::string settings =
        "[forwarder]\ncleanup_interval = 9\n[controller]\nstats_seconds = 10\n";
    EXPECT_THAT(warningsBesides(settings + warnedFlow("a", 1, "next = { label = 2 }") +
                                warnedFlow("b", 3, "next = { label = 4, rotate_seconds = 0 }")),
                isOneWarningWith("forwarder.cleanup_interval is below controller.stats_seconds, so "
                                 "1 flow with a next may look silent and lose the old label too "
                                 "early: a"));
    EXPECT_THAT(warningsBesides("[forwarder]\ncleanup_interval = 10\n" +
                                warnedFlow("a", 1, "next = { label = 2 }")),
                hasNoWarning());
}

TEST(ConfigurationWarnings, NameANextThatBelongsToAnotherInstance) {
    EXPECT_THAT(
        warningsBesides("[lateral]\naddress = \"127.0.0.1\"\nport = 4600\nindex = 0\n"
                        "instances = 2\npeers = [{ index = 1, address = \"127.0.0.2\" }]\n" +
                        warnedFlow("a", 1, "next = { label = 0x10001 }")),
        isOneWarningWith("1 label or prefix belongs to another instance",
                         "flows.a.next (label 0x10001, instance 1)"));
}

}  // namespace
}  // namespace vesk::controller
