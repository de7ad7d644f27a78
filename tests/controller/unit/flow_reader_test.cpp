#include "config/flow_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "configuration_text.h"

namespace vesk::controller {
namespace {

using testing::HasSubstr;

/// A correct flow of three lines; a text that is appended to it begins at line 4.
const std::string plainFlow = "[flows.a]\nlabel = 1\nupstream = \"127.0.0.1:5000\"\n";

Flow flowWith(const std::string& more) {
    return listeningWith(plainFlow + more).flows.at(1);
}

TEST(FlowReader, ReadsEveryKey) {
    const Flow flow = listeningWith(R"([flows.alice]
        label = 0x10001
        upstream = "[::1]:5000"
        source = "[::1]:6000"
        peer = "192.0.2.7:7000"
        multiplex = true
        from_peer     = { key = "0A0B" }
        to_upstream   = { key = "0c", label = 0x20001, dscp = 46 }
        from_upstream = { key = "0d", algorithm = "sha1" }
        to_peer       = { key = "0e", algorithm = "sha256", label = 0x30001, dscp = 0 }
        auxiliary     = { prefix = 7, upstream_label = 0x50000, upstream = "[::2]:8000" })")
                          .flows.at(0x10001);
    EXPECT_EQ(flow.name, "alice");
    EXPECT_EQ(flow.label, 0x10001U);
    EXPECT_EQ(flow.upstream, (HostPort{"::1", 5000}));
    EXPECT_EQ(flow.source, (HostPort{"::1", 6000}));
    EXPECT_EQ(flow.peer, (HostPort{"192.0.2.7", 7000}));
    EXPECT_TRUE(flow.multiplex);
    EXPECT_EQ(flow.fromPeer.signature->keyDigits, "0a0b");
    EXPECT_EQ(flow.fromPeer.signature->algorithm, "sha256");
    EXPECT_EQ(flow.toUpstream.label, 0x20001U);
    EXPECT_EQ(flow.toUpstream.dscp, 46);
    EXPECT_EQ(flow.fromUpstream.signature->algorithm, "sha1");
    EXPECT_EQ(flow.toPeer.dscp, 0);
    EXPECT_EQ(flow.auxiliary->prefix, 7);
    EXPECT_EQ(flow.auxiliary->upstreamLabel, 0x50000U);
    EXPECT_EQ(flow.auxiliary->upstream, (HostPort{"::2", 8000}));
}

TEST(FlowReader, RequiresNeitherKeysNorLabels) {
    const Flow flow = flowWith("");
    EXPECT_FALSE(flow.fromPeer.signature);
    EXPECT_FALSE(flow.toUpstream.label);
    EXPECT_FALSE(flow.toPeer.dscp);
    EXPECT_FALSE(flow.source);
    EXPECT_FALSE(flow.auxiliary);
    EXPECT_FALSE(flow.multiplex);
}

struct BadFlow {
    const char* text;
    const char* complaint;
};

class BadFlowTest : public testing::TestWithParam<BadFlow> {};

TEST_P(BadFlowTest, IsRefusedWithItsPlace) {
    EXPECT_THAT(problemsBesides(plainFlow + GetParam().text), HasSubstr(GetParam().complaint));
}

INSTANTIATE_TEST_SUITE_P(
    FlowReader, BadFlowTest,
    testing::Values(
        BadFlow{"source = \"host:1\"", "4: flows.a.source must be a numeric address and a port"},
        BadFlow{"source = \"[::1]:1\"", "4: flows.a.source and upstream must have the same"},
        BadFlow{"source = \"127.0.0.1:1\"\n"
                "auxiliary = { prefix = 1, upstream_label = 1, upstream = \"[::1]:1\" }",
                "4: flows.a.source and auxiliary.upstream must have the same"},
        BadFlow{"peer = 5", "4: flows.a.peer must be a string in quotes"},
        BadFlow{"multiplex = \"yes\"", "4: flows.a.multiplex must be true or false"},
        BadFlow{"to_peer = 1", "4: flows.a.to_peer must be a table"},
        BadFlow{"to_peer = { dscp = 64 }", "flows.a.to_peer.dscp must be an integer from 0 to"},
        BadFlow{"to_peer = { label = 4294967296 }", "flows.a.to_peer.label must be an integer"},
        BadFlow{"from_peer = { label = 1 }", "flows.a.from_peer.label is not a known key"},
        BadFlow{"from_peer = { dscp = 1 }", "flows.a.from_peer.dscp is not a known key"},
        BadFlow{"from_peer = { key = \"0\" }",
                "flows.a.from_peer.key is not usable: the key has an odd"},
        BadFlow{"from_peer = { key = 1122 }", "flows.a.from_peer.key must be a string in quotes"},
        BadFlow{"from_peer = { key = \"00\", algorithm = \"md5\" }",
                "algorithm must be one of \"sha256\", \"sha1\""},
        BadFlow{"from_peer = { algorithm = \"sha1\" }", "algorithm requires key or key_file"},
        BadFlow{"from_peer = { key = \"00\", key_file = \"k\" }",
                "key_file and key are mutually exclusive"},
        BadFlow{"from_peer = { key_file = \"/nowhere/k\" }",
                "flows.a.from_peer.key_file is not usable: /nowhere/k cannot be read"},
        BadFlow{"auxiliary = { prefix = 1 }", "flows.a.auxiliary.upstream_label is missing"},
        BadFlow{"auxiliary = { upstream_label = 1 }", "flows.a.auxiliary.prefix is missing"},
        BadFlow{"auxiliary = { prefix = 65536, upstream_label = 1 }", "prefix must be an integer"},
        BadFlow{"[flows.b]\nlabel = 1\nupstream = \"127.0.0.1:1\"",
                "5: flows.b.label is already used by flows.a"},
        BadFlow{"auxiliary = { prefix = 9, upstream_label = 1 }\n[flows.b]\nlabel = 2\n"
                "upstream = \"127.0.0.1:1\"\nauxiliary = { prefix = 9, upstream_label = 1 }",
                "8: flows.b.auxiliary has the same prefix as flows.a"},
        BadFlow{"[flows.\"\"]\nlabel = 2\nupstream = \"127.0.0.1:1\"", "is not a valid name"},
        BadFlow{"[flows.\"x\\u0007\"]\nlabel = 2", "x? is not a valid name"}));

TEST(FlowReader, ReportsOnlyTheConflictOfKeyAndKeyFile) {
    EXPECT_EQ(problemsBesides("[flows.a]\nlabel = 1\nupstream = \"127.0.0.1:1\"\n"
                              "from_peer = { key = \"ab\", key_file = \"a.key\" }"),
              "4: flows.a.from_peer.key_file and key are mutually exclusive\n");
}

}  // namespace
}  // namespace vesk::controller
