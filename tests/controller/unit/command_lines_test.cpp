#include "commands/command_lines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "configuration_text.h"

namespace vesk::controller {
namespace {

using testing::ElementsAre;

std::vector<std::string> linesOf(const std::vector<Command>& commands) {
    std::vector<std::string> lines;
    lines.reserve(commands.size());
    for (const Command& command : commands) {
        lines.push_back(toLine(command));
    }
    return lines;
}

TEST(CommandLines, PassFourArgumentsToTheProgram) {
    EXPECT_THAT(programArguments({}), ElementsAre("udpv2", "600", "true", "true"));
    ForwarderSettings settings;
    settings.framing = "udpv1";
    settings.cleanupInterval = std::chrono::seconds(7);
    settings.expireMainFlows = false;
    EXPECT_THAT(programArguments(settings), ElementsAre("udpv1", "7", "false", "true"));
}

TEST(CommandLines, PassAnEnvironmentVariableToTheProgram) {
    EXPECT_THAT(programEnvironment({}), ElementsAre("VESK_IPV4_SOURCE=arrival"));
    ForwarderSettings settings;
    settings.ipv4Source = "kernel";
    EXPECT_THAT(programEnvironment(settings), ElementsAre("VESK_IPV4_SOURCE=kernel"));
}

TEST(CommandLines, SetAllAttributesOfAFlow) {
    const Configuration configuration = listeningWith(R"([flows.alice]
        label = 10
        upstream = "[::1]:5000"
        source = "[::1]:6000"
        peer = "192.0.2.7:7000"
        multiplex = true
        from_peer     = { key = "0a" }
        to_upstream   = { key = "0c", label = 20, dscp = 46 }
        from_upstream = { key = "0d", algorithm = "sha1" }
        to_peer       = { key = "0e", label = 30, dscp = 0 }
        auxiliary     = { prefix = 7, upstream_label = 50, upstream = "[::2]:8000" })");
    const Command command = setCommand(configuration.flows.at(10));
    EXPECT_EQ(toLine(command),
              "set label 0xa up_ip ::1 up_port 5000 up_src_ip ::1 up_src_port 6000 "
              "down_ip 192.0.2.7 down_port 7000 is_multiplex true "
              "down_in_key 0a down_in_algo sha256 "
              "up_label 0x14 up_out_key 0c up_out_algo sha256 up_out_dscp_v4 46 up_out_dscp_v6 46 "
              "up_in_key 0d up_in_algo sha1 "
              "down_label 0x1e down_out_key 0e down_out_algo sha256 down_out_dscp_v4 0 "
              "down_out_dscp_v6 0 "
              "down_aux_flow_label_prefix 7 up_aux_flow_label 0x32 up_aux_flow_ip ::2 "
              "up_aux_flow_port 8000");
    EXPECT_EQ(command.subject, "flow alice");
    EXPECT_EQ(command.label, 10U);
    EXPECT_EQ(describe(command), "flow alice (label 0xa/10)");
    EXPECT_EQ(describe(statsCommand()), "the report");
    EXPECT_EQ(toLine(delCommand(configuration.flows.at(10))), "del label 0xa");
}

TEST(CommandLines, DeclareFlowsBeforeStartingListeners) {
    const Configuration configuration = listeningWith(R"([forwarder]
        log_level = "warn"
        [lateral]
        address = "127.0.0.1"
        port = 8445
        index = 1
        instances = 2
        peers = [ { index = 0, address = "127.0.0.2" } ]
        [flows.b]
        label = 2
        upstream = "127.0.0.1:2"
        [flows.a]
        label = 1
        upstream = "127.0.0.1:1")");
    EXPECT_THAT(linesOf(allCommands(configuration)),
                ElementsAre("log priority warn", "set label 0x1 up_ip 127.0.0.1 up_port 1",
                            "set label 0x2 up_ip 127.0.0.1 up_port 2",
                            "add_lateral_peer idx 0 addr 127.0.0.2",
                            "start_lateral addr 127.0.0.1 port 8445 idx 1 max_qels 2",
                            "start addr 127.0.0.1 port 4500"));
}

}  // namespace
}  // namespace vesk::controller
