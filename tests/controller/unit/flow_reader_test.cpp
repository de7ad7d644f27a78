#include "config/flow_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "configuration_text.h"

namespace vesk::controller {
namespace {

using testing::HasSubstr;

/// A flow that is in order; line 1 of what follows in a test is line 4 of the file.
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

TEST(FlowReader, NeedsNeitherKeysNorLabels) {
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
        BadFlow{"source = \"host:1\"", "4: flows.a.source has to be a numeric address and a port"},
        BadFlow{"source = \"[::1]:1\"", "4: flows.a.source and upstream have to be of the same"},
        BadFlow{"source = \"127.0.0.1:1\"\n"
                "auxiliary = { prefix = 1, upstream_label = 1, upstream = \"[::1]:1\" }",
                "4: flows.a.source and auxiliary.upstream have to be of the same"},
        BadFlow{"peer = 5", "4: flows.a.peer has to be a text in quotes"},
        BadFlow{"multiplex = \"yes\"", "4: flows.a.multiplex has to be true or false"},
        BadFlow{"to_peer = 1", "4: flows.a.to_peer has to be a table"},
        BadFlow{"to_peer = { dscp = 64 }",
                "flows.a.to_peer.dscp has to be a whole number from 0 to"},
        BadFlow{"to_peer = { label = 4294967296 }",
                "flows.a.to_peer.label has to be a whole number"},
        BadFlow{"from_peer = { label = 1 }", "flows.a.from_peer.label is not known"},
        BadFlow{"from_peer = { dscp = 1 }", "flows.a.from_peer.dscp is not known"},
        BadFlow{"from_peer = { key = \"0\" }",
                "flows.a.from_peer.key is not usable: the key has an odd"},
        BadFlow{"from_peer = { key = 1122 }", "flows.a.from_peer.key has to be a text in quotes"},
        BadFlow{"from_peer = { key = \"00\", algorithm = \"md5\" }",
                "algorithm has to be one of \"sha256\", \"sha1\""},
        BadFlow{"from_peer = { algorithm = \"sha1\" }", "algorithm needs a key or key_file"},
        BadFlow{"from_peer = { key = \"00\", key_file = \"k\" }",
                "key_file and key are mutually exclusive"},
        BadFlow{"from_peer = { key_file = \"/nowhere/k\" }",
                "flows.a.from_peer.key_file is not usable: /nowhere/k cannot be read"},
        BadFlow{"auxiliary = { prefix = 1 }", "flows.a.auxiliary.upstream_label is missing"},
        BadFlow{"auxiliary = { upstream_label = 1 }", "flows.a.auxiliary.prefix is missing"},
        BadFlow{"auxiliary = { prefix = 65536, upstream_label = 1 }", "prefix has to be a whole"},
        BadFlow{"[flows.b]\nlabel = 1\nupstream = \"127.0.0.1:1\"",
                "5: flows.b.label is that of flows.a too"},
        BadFlow{"auxiliary = { prefix = 9, upstream_label = 1 }\n[flows.b]\nlabel = 2\n"
                "upstream = \"127.0.0.1:1\"\nauxiliary = { prefix = 9, upstream_label = 1 }",
                "8: flows.b.auxiliary is that of flows.a too"},
        BadFlow{"[flows.\"\"]\nlabel = 2\nupstream = \"127.0.0.1:1\"", "is no name"},
        BadFlow{"[flows.\"x\\u0007\"]\nlabel = 2", "x? is no name"}));

TEST(FlowReader, KnowsTheKeyFileBesideAKey) {
    EXPECT_EQ(problemsBesides("[flows.a]\nlabel = 1\nupstream = \"127.0.0.1:1\"\n"
                              "from_peer = { key = \"ab\", key_file = \"a.key\" }"),
              "4: flows.a.from_peer.key_file and key are mutually exclusive\n");
}

}  // namespace
}  // namespace vesk::controller
