#include "config/configuration_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "configuration_text.h"
#include "temporary_folder.h"

namespace vesk::controller {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr std::string_view withKey =
    "[flows.a]\nlabel = 1\nupstream = \"127.0.0.1:1\"\nfrom_peer = { key = \"abab\" }\n";

TEST(ConfigurationReader, RequiresOnlyAnAddress) {
    const Configuration configuration = configurationOf(listening);
    EXPECT_EQ(configuration.downstream, (HostPort{"127.0.0.1", 4500}));
    EXPECT_TRUE(configuration.flows.empty());
    EXPECT_FALSE(configuration.lateral);
    EXPECT_EQ(configuration.forwarder.framing, "udpv2");
    EXPECT_EQ(configuration.forwarder.cleanupInterval, std::chrono::seconds(600));
    EXPECT_EQ(configuration.supervision.restartPause, std::chrono::milliseconds(100));
    EXPECT_EQ(configuration.metrics, MetricsSettings{});
}

TEST(ConfigurationReader, ReportsAllProblemsInOrderOfLines) {
    EXPECT_EQ(problemsOf("[downstream]\n"
                         "address = \"somewhere\"\n"
                         "port = 0\n"
                         "[flows.alice]\n"
                         "label = 0\n"
                         "colour = \"red\"\n"
                         "[nonsense]\n"),
              "2: downstream.address must be a numeric address\n"
              "3: downstream.port must be an integer from 1 to 65535\n"
              "4: flows.alice.upstream is missing\n"
              "5: flows.alice.label must be an integer from 1 to 4294967295\n"
              "6: flows.alice.colour is not a known key\n"
              "7: nonsense is not a known key\n");
    EXPECT_EQ(problemsOf(""), "1: downstream is missing\n");
    EXPECT_EQ(problemsOf("downstream = 1"), "1: downstream must be a table\n");
}

TEST(ConfigurationReader, ReplacesControlCharactersInNames) {
    EXPECT_THAT(problemsBesides("[flows.\"a\\nb\"]\nlabel = 1\n[flows.c]\nlabel = 1"),
                testing::AllOf(HasSubstr("flows.c.label is already used by flows.a?b"),
                               Not(HasSubstr("a\nb"))));
}

TEST(ConfigurationReader, ReportsTheLineOfASyntaxError) {
    EXPECT_THAT(problemsOf("[downstream]\nport = = 1\n"), testing::StartsWith("2: "));
}

TEST(ConfigurationReader, DoesNotShowAKeyWithoutQuotes) {
    for (const char* const key : {"987654321098765432109876543210", "0x98765432109876543210987654",
                                  "fade5432109876", "7654abcd", "1e7654321765"}) {
        const std::string problems =
            problemsBesides("[flows.a]\nfrom_peer = { key = " + std::string(key) + " }");
        EXPECT_NE(problems, "") << key;
        for (std::size_t i = 0; i + 4 <= std::string_view(key).size(); ++i) {
            EXPECT_THAT(problems, Not(HasSubstr(std::string(key).substr(i, 4)))) << key;
        }
    }
}

TEST(ConfigurationReader, RefusesKeysInAFileThatOthersCanRead) {
    const std::string text = std::string(withKey) + std::string(listening);
    const TemporaryFolder folder;
    const auto open = folder.write("open.toml", text, 0644);
    const ConfigurationReading refused = readConfiguration(open, ReadingRules{});
    ASSERT_EQ(refused.problems.size(), 1U);
    EXPECT_EQ(refused.problems[0].line, 4U);
    EXPECT_THAT(refused.problems[0].text, HasSubstr("readable by others"));
    EXPECT_FALSE(refused.configuration);

    EXPECT_TRUE(readConfiguration(open, ReadingRules{.allowReadableKeys = true}).configuration);
    EXPECT_TRUE(readConfiguration(folder.write("closed.toml", text), {}).configuration);
    // A file without keys may be readable by others.
    EXPECT_TRUE(readConfiguration(folder.write("plain.toml", listening, 0644), {}).configuration);
}

TEST(ConfigurationReader, FindsKeyFilesInTheFolderOfTheFile) {
    const TemporaryFolder folder;
    folder.write("a.key", "00 11\n");
    const auto file = folder.write("vesk.toml",
                                   "[flows.a]\nlabel = 1\nupstream = \"[::1]:1\"\n"
                                   "to_peer = { key_file = \"a.key\" }\n" +
                                       std::string(listening));
    const ConfigurationReading reading = readConfiguration(file, {});
    ASSERT_TRUE(reading.configuration);
    EXPECT_EQ(reading.configuration->flows.at(1).toPeer.signature->keyDigits, "0011");
}

TEST(ConfigurationReader, ReportsAMissingFile) {
    const ConfigurationReading reading = readConfiguration("/nowhere/vesk.toml", {});
    ASSERT_EQ(reading.problems.size(), 1U);
    EXPECT_EQ(describe(reading.problems[0], "vesk.toml"),
              "vesk.toml: cannot be read: No such file or directory");
    EXPECT_EQ(describe({7, "is odd"}, "vesk.toml"), "vesk.toml:7: is odd");
}

}  // namespace
}  // namespace vesk::controller
