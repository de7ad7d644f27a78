#include "config/settings_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "configuration_text.h"

namespace vesk::controller {
namespace {

using testing::HasSubstr;

TEST(SettingsReader, ReadsTheForwardersTable) {
    const ForwarderSettings settings = listeningWith(R"([forwarder]
        program = "bin/vesk"
        framing = "udpv1"
        cleanup_interval = 5
        expire_main_flows = false
        expire_auxiliary_flows = false
        ipv4_source = "kernel"
        log_level = "trace")")
                                           .forwarder;
    EXPECT_EQ(settings.program, "bin/vesk");
    EXPECT_EQ(settings.framing, "udpv1");
    EXPECT_EQ(settings.cleanupInterval, std::chrono::seconds(5));
    EXPECT_FALSE(settings.expireMainFlows);
    EXPECT_FALSE(settings.expireAuxiliaryFlows);
    EXPECT_EQ(settings.ipv4Source, "kernel");
    EXPECT_EQ(settings.logLevel, "trace");
}

TEST(SettingsReader, StoresTheLinesOfTheDownstreamAddress) {
    const Configuration configuration =
        configurationOf("\n[downstream]\nport = 4500\n\naddress = \"::\"\n");
    EXPECT_EQ(configuration.downstream, (HostPort{"::", 4500}));
    EXPECT_EQ(configuration.downstreamLines.port, 3U);
    EXPECT_EQ(configuration.downstreamLines.address, 5U);
}

TEST(SettingsReader, ReadsTheLateralTable) {
    const Lateral lateral = listeningWith(R"([lateral]
        address = "::"
        port = 8445
        index = 1
        instances = 3
        peers = [ { index = 0, address = "192.0.2.1" }, { index = 2, address = "::2" } ])")
                                .lateral.value();
    EXPECT_EQ(lateral.listen, (HostPort{"::", 8445}));
    EXPECT_EQ(lateral.index, 1U);
    EXPECT_EQ(lateral.instances, 3U);
    EXPECT_THAT(lateral.peers,
                testing::ElementsAre(testing::Pair(0U, "192.0.2.1"), testing::Pair(2U, "::2")));
}

TEST(SettingsReader, ReadsTheControllersAndTheMetricsTables) {
    const Configuration configuration = listeningWith(R"([controller]
        restart_pause_ms = 1
        restart_pause_max_ms = 2
        leave_seconds = 86400
        drain_seconds = 0
        stats_seconds = 3
        log_limit = false
        answer_seconds = 4
        rotate_seconds = 31536000
        strict = true
        [metrics]
        enabled = false
        address = "127.0.0.2"
        port = 1
        per_flow = true
        required = true)");
    EXPECT_EQ(configuration.supervision.restartPause, std::chrono::milliseconds(1));
    EXPECT_EQ(configuration.supervision.restartPauseMax, std::chrono::milliseconds(2));
    EXPECT_EQ(configuration.supervision.leave, std::chrono::seconds(86400));
    EXPECT_EQ(configuration.supervision.drain, std::chrono::seconds(0));
    EXPECT_TRUE(configuration.supervision.strict);
    EXPECT_EQ(configuration.supervision.stats, std::chrono::seconds(3));
    EXPECT_EQ(configuration.supervision.answer, std::chrono::seconds(4));
    EXPECT_EQ(configuration.supervision.rotate, std::chrono::seconds(31536000));
    EXPECT_FALSE(configuration.supervision.logLimit);
    EXPECT_EQ(configuration.metrics, (MetricsSettings{false, "127.0.0.2", 1, true, true}));
}

TEST(SettingsReader, EndsAtOnceAndIsNotStrictByDefault) {
    const SupervisionSettings settings = listeningWith("").supervision;
    EXPECT_EQ(settings.leave, std::chrono::seconds(0));
    EXPECT_FALSE(settings.strict);
    EXPECT_EQ(settings.rotate, std::chrono::hours(1));
}

TEST(SettingsReader, AcceptsIpv6AddressesForTheMetrics) {
    for (const char* address : {"::1", "::", "2001:db8::1", "::ffff:192.0.2.1"}) {
        const std::string table = "[metrics]\naddress = \"" + std::string(address) + "\"";
        EXPECT_EQ(listeningWith(table).metrics.address, address);
    }
}

struct BadSetting {
    const char* text;
    const char* complaint;
};

class BadSettingTest : public testing::TestWithParam<BadSetting> {};

TEST_P(BadSettingTest, IsRefusedWithItsPlace) {
    EXPECT_THAT(problemsBesides(GetParam().text), HasSubstr(GetParam().complaint));
}

const char* const lateralWith = "[lateral]\naddress = \"::\"\nport = 1\nindex = 0\ninstances = 2\n";

TEST(SettingsReader, RefusesWrongPeers) {
    const auto complaints = [](const char* peers) {
        return problemsBesides(lateralWith + std::string("peers = ") + peers);
    };
    EXPECT_THAT(complaints("[]"), HasSubstr("6: lateral.peers is empty"));
    EXPECT_THAT(complaints("[1]"), HasSubstr("6: lateral.peers must contain tables"));
    EXPECT_THAT(complaints("1"), HasSubstr("6: lateral.peers must be an array"));
    EXPECT_THAT(complaints("[{ index = 0, address = \"::\" }]"),
                HasSubstr("the index of this instance"));
    EXPECT_THAT(complaints("[{ index = 2, address = \"::\" }]"), HasSubstr("below the number of"));
    EXPECT_THAT(complaints("[{ index = 1, address = \"h\" }]"), HasSubstr("numeric address"));
    EXPECT_THAT(complaints("[{ index = 1 }]"), HasSubstr("lateral.peers.address is missing"));
    EXPECT_THAT(complaints("[{ address = \"::\" }]"), HasSubstr("lateral.peers.index is missing"));
    EXPECT_THAT(complaints("[{ index = 1, address = \"::1\" }, { index = 1, address = \"::2\" }]"),
                HasSubstr("is used twice"));
}

INSTANTIATE_TEST_SUITE_P(
    SettingsReader, BadSettingTest,
    testing::Values(
        BadSetting{"[forwarder]\nframing = \"udpv3\"", "forwarder.framing must be one of"},
        BadSetting{"[forwarder]\nipv4_source = \"Arrival\"",
                   "forwarder.ipv4_source must be one of"},
        BadSetting{"[forwarder]\nipv4_source = true", "must be a string in quotes"},
        BadSetting{"[forwarder]\nlog_level = \"loud\"", "forwarder.log_level must be one of"},
        BadSetting{"[forwarder]\ncleanup_interval = 0", "must be an integer from 1 to"},
        BadSetting{"[forwarder]\ncleanup_interval = 9223372037", "to 9223372036"},
        BadSetting{"[forwarder]\nexpire_main_flows = 1", "must be true or false"},
        BadSetting{"[forwarder]\nprogram = \"\"", "forwarder.program must be a path"},
        BadSetting{"[forwarder]\ncolour = 1", "2: forwarder.colour is not a known key"},
        BadSetting{"[controller]\nrestart_pause_ms = 0", "restart_pause_ms must be an integer"},
        BadSetting{"[controller]\nrestart_pause_ms = 40000", "restart_pause_max_ms is below"},
        BadSetting{"[controller]\nrotate_seconds = 31536001",
                   "rotate_seconds must be an integer from 0 to 31536000"},
        BadSetting{"[controller]\nstats_seconds = 0", "stats_seconds must be an integer"},
        BadSetting{"[controller]\nanswer_seconds = 0", "answer_seconds must be an integer"},
        BadSetting{"[controller]\ndrain_seconds = -1", "drain_seconds must be an integer"},
        BadSetting{"[controller]\nleave_seconds = -1", "leave_seconds must be an integer"},
        BadSetting{"[controller]\nleave_seconds = 86401", "leave_seconds must be an integer"},
        BadSetting{"[controller]\nstrict = 1", "strict must be true or false"},
        BadSetting{"[controller]\nlog_limit = 0", "log_limit must be true or false"},
        BadSetting{"[controller]\ncolour = 1", "2: controller.colour is not a known key"},
        BadSetting{"[metrics]\naddress = \"localhost\"", "metrics.address must be a numeric"},
        BadSetting{"[metrics]\naddress = \"[::1]\"", "metrics.address must be a numeric"},
        BadSetting{"[metrics]\naddress = \"\"", "metrics.address must be a numeric"},
        BadSetting{"[metrics]\naddress = 1", "metrics.address must be a string in quotes"},
        BadSetting{"[metrics]\nport = 65536", "metrics.port must be an integer"},
        BadSetting{"[metrics]\nrequired = 1", "metrics.required must be true or false"},
        BadSetting{"[metrics]\ncolour = 1", "2: metrics.colour is not a known key"},
        BadSetting{"[lateral]\naddress = \"::\"", "lateral.port is missing"},
        BadSetting{"[lateral]\ncolour = 1", "2: lateral.colour is not a known key"},
        BadSetting{"[lateral]\nindex = 2\ninstances = 2", "lateral.index must be below"}));

}  // namespace
}  // namespace vesk::controller
