#include "config/next_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "configuration_text.h"

namespace vesk::controller {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Key;

/// A correct flow of three lines; a text that is appended to it begins at line 4.
const std::string flowBeforeNext = "[flows.a]\nlabel = 1\nupstream = \"127.0.0.1:5000\"\n";
const std::string bothKeys =
    "from_peer = { key = \"01\" }\nto_peer = { key = \"02\", label = 9 }\n";

std::map<std::uint32_t, Flow> flowsOf(const std::string& more) {
    return listeningWith(flowBeforeNext + more).flows;
}

TEST(NextReader, ReadsEveryKey) {
    const std::map<std::uint32_t, Flow> flows = flowsOf(R"(source = "127.0.0.1:6000"
        peer = "192.0.2.7:7000"
        from_peer = { key = "0a" }
        auxiliary = { prefix = 7, upstream_label = 0x50000, upstream = "127.0.0.2:1" }
        [flows.a.next]
        label = 2
        source = "127.0.0.1:6001"
        from_peer     = { key = "1a", algorithm = "sha1" }
        to_upstream   = { key = "1b", label = 3, dscp = 4 }
        from_upstream = { key = "1c" }
        to_peer       = { key = "1d", label = 5, dscp = 6 }
        auxiliary     = { prefix = 8, upstream_label = 0x60000 }
        rotate_seconds = 77)");
    ASSERT_THAT(flows, ElementsAre(Key(1U), Key(2U)));
    EXPECT_EQ(flows.at(1).next, (NextLabel{2, std::chrono::seconds(77)}));
    EXPECT_FALSE(flows.at(1).isNext);
    const Flow& next = flows.at(2);
    EXPECT_TRUE(next.isNext);
    EXPECT_FALSE(next.next);
    EXPECT_EQ(next.name, "a");
    EXPECT_EQ(next.upstream, (HostPort{"127.0.0.1", 5000}));
    EXPECT_EQ(next.peer, (HostPort{"192.0.2.7", 7000}));
    EXPECT_EQ(next.source, (HostPort{"127.0.0.1", 6001}));
    EXPECT_EQ(next.fromPeer, (Leg{Signature{"1a", "sha1"}, {}, {}, false}));
    EXPECT_EQ(next.toUpstream, (Leg{Signature{"1b", "sha256"}, 3, 4, false}));
    EXPECT_EQ(next.fromUpstream, (Leg{Signature{"1c", "sha256"}, {}, {}, false}));
    EXPECT_EQ(next.toPeer, (Leg{Signature{"1d", "sha256"}, 5, 6, false}));
    EXPECT_EQ(next.auxiliary, (AuxiliaryFlows{8, 0x60000, HostPort{"127.0.0.2", 1}}));
}

TEST(NextReader, InheritsWhatTwoLabelsCanShare) {
    const std::map<std::uint32_t, Flow> flows = flowsOf(R"(from_peer = { key = "0a" }
        to_upstream = { key = "0b", algorithm = "sha1", label = 3, dscp = 4 }
        from_upstream = { key = "0c" }
        to_peer = { key = "0d", label = 5, dscp = 6 }
        next = { label = 2, from_peer = { key = "1a" }, to_peer = { key = "1d" } })");
    const Flow& next = flows.at(2);
    EXPECT_EQ(next.toUpstream, (Leg{Signature{"0b", "sha1"}, 3, 4, true}));
    EXPECT_EQ(next.fromUpstream, (Leg{Signature{"0c", "sha256"}, {}, {}, true}));
    EXPECT_EQ(next.toPeer, (Leg{Signature{"1d", "sha256"}, 5, 6, false}));
    EXPECT_FALSE(flows.at(1).next->rotate);
}

TEST(NextReader, NeedsNoKeyWhereTheFlowHasNone) {
    const Flow next = flowsOf("next = { label = 2, to_upstream = { label = 4 } }").at(2);
    EXPECT_FALSE(next.fromPeer.signature);
    EXPECT_FALSE(next.toPeer.signature);
    EXPECT_EQ(next.toUpstream.label, 4U);
    EXPECT_TRUE(
        flowsOf("next = { label = 2, from_peer = { key = \"0a\" } }").at(2).fromPeer.signature);
}

TEST(NextReader, SharesTheSourceOfAMultiplexedFlow) {
    const Flow next = flowsOf(
                          "multiplex = true\nsource = \"127.0.0.1:1\"\n"
                          "next = { label = 2, to_upstream = { label = 4 } }")
                          .at(2);
    EXPECT_TRUE(next.multiplex);
    EXPECT_EQ(next.source, (HostPort{"127.0.0.1", 1}));
}

struct BadNext {
    std::string text;
    const char* complaint;
};

class BadNextTest : public testing::TestWithParam<BadNext> {};

TEST_P(BadNextTest, IsRefusedWithItsPlace) {
    EXPECT_THAT(problemsBesides(flowBeforeNext + GetParam().text), HasSubstr(GetParam().complaint));
}

const std::string ownSourceLine = "source = \"127.0.0.1:1\"\n";

INSTANTIATE_TEST_SUITE_P(
    NextReader, BadNextTest,
    testing::Values(
        BadNext{"next = 2", "4: flows.a.next must be a table"},
        BadNext{"next = { }", "4: flows.a.next.label is missing"},
        BadNext{"next = { label = 0 }", "4: flows.a.next.label must be an integer from 1 to"},
        BadNext{"next = { label = 1 }", "4: flows.a.next.label is already used by flows.a\n"},
        BadNext{"next = { label = 2 }\n[flows.b]\nlabel = 2\nupstream = \"127.0.0.1:1\"",
                "6: flows.b.label is already used by flows.a.next\n"},
        BadNext{"next = { label = 2 }\n[flows.b]\nlabel = 3\nupstream = \"127.0.0.1:1\"\n"
                "next = { label = 2 }",
                "8: flows.b.next.label is already used by flows.a.next\n"},
        BadNext{"next = { label = 2, upstream = \"127.0.0.1:1\" }",
                "4: flows.a.next.upstream is not a known key"},
        BadNext{"next = { label = 2, next = { label = 3 } }",
                "4: flows.a.next.next is not a known key"},
        BadNext{"next = { label = 2, rotate_seconds = -1 }",
                "4: flows.a.next.rotate_seconds must be an integer from 0 to 31536000"},
        BadNext{"next = { label = 2, from_peer = { key = \"0\" } }",
                "4: flows.a.next.from_peer.key is not usable: the key has an odd"},
        BadNext{"next = { label = 2, to_peer = { key_file = \"/nowhere/k\" } }",
                "4: flows.a.next.to_peer.key_file is not usable: /nowhere/k cannot be read"},
        BadNext{"next = { label = 2, to_upstream = { dscp = 64 } }",
                "4: flows.a.next.to_upstream.dscp must be an integer from 0 to 63"},
        BadNext{bothKeys + "next = { label = 2, to_peer = { key = \"03\" } }",
                "6: flows.a.next.from_peer has no key, but the flow has one, which is not "
                "inherited\n"},
        BadNext{bothKeys + "next = { label = 2, from_peer = { key = \"03\" }, "
                           "to_peer = { label = 8 } }",
                "6: flows.a.next.to_peer has no key, but the flow has one"},
        BadNext{ownSourceLine + "next = { label = 2 }",
                "5: flows.a.next.source is needed and must differ from that of the flow: only with "
                "multiplex two labels can share it"},
        BadNext{ownSourceLine + "next = { label = 2, " +
                    ownSourceLine.substr(0, ownSourceLine.size() - 1) + " }",
                "5: flows.a.next.source is needed and must differ"},
        BadNext{"next = { label = 2, source = \"[::1]:1\" }",
                "4: flows.a.next.source and upstream must have the same address family"},
        BadNext{"multiplex = true\nnext = { label = 2 }",
                "5: flows.a.next.to_upstream needs a label that differs from that of the flow: "
                "with multiplex the label of a reply selects its flow"},
        BadNext{"multiplex = true\nto_upstream = { label = 7 }\n"
                "next = { label = 2, to_upstream = { label = 7 } }",
                "6: flows.a.next.to_upstream needs a label that differs"},
        BadNext{"auxiliary = { prefix = 1, upstream_label = 1 }\nnext = { label = 2 }",
                "5: flows.a.next.auxiliary is missing: a prefix belongs to one label"},
        BadNext{"auxiliary = { prefix = 1, upstream_label = 1 }\n"
                "next = { label = 2, auxiliary = { prefix = 1, upstream_label = 1 } }",
                "5: flows.a.next.auxiliary has the same prefix as flows.a\n"}));

TEST(NextReader, ReportsOnlyThatAKeyIsNotUsable) {
    EXPECT_EQ(problemsBesides(flowBeforeNext + bothKeys +
                              "next = { label = 2, from_peer = { key = \"xx\" }, "
                              "to_peer = { key = \"03\" } }"),
              "6: flows.a.next.from_peer.key is not usable: the key has a character that is not a "
              "hex digit\n");
}

}  // namespace
}  // namespace vesk::controller
