#include "config/variables.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <utility>

#include "config/configuration_reader.h"
#include "configuration_text.h"

namespace vesk::controller {
namespace {

/// Sets variables of this process, and removes them again.
class Variables : public testing::Test {
 protected:
    Variables() {
        for (const auto& [name, value] : set) {
            setenv(name, value, 1);
        }
    }
    ~Variables() override {
        for (const auto& [name, value] : set) {
            unsetenv(name);
        }
    }

    static constexpr std::array<std::pair<const char*, const char*>, 5> set{
        {{"VESK_TEST_HOST", "127.0.0.9"},
         {"VESK_TEST_EMPTY", ""},
         {"VESK_TEST_NESTED", "${VESK_TEST_HOST}"},
         {"VESK_TEST_KEY", "0011223344556677"},
         {"VESK_TEST_BAD_KEY", "secret words"}}};
};

std::string replacedIn(const std::string& text) {
    toml::table table = toml::parse("text = '" + text + "'");
    const ReplacedVariables replaced = replaceVariables(table);
    return replaced.problems.empty() ? table["text"].value_or(std::string())
                                     : "problem: " + replaced.problems.front().problem.text;
}

std::string problemsWithFlow(const std::string& line) {
    return problemsBesides("[flows.alice]\nlabel = 1\nupstream = \"127.0.0.1:1\"\n" + line);
}

TEST_F(Variables, AreReplaced) {
    EXPECT_EQ(replacedIn("${VESK_TEST_HOST}"), "127.0.0.9");
    EXPECT_EQ(replacedIn("a${VESK_TEST_HOST}b${VESK_TEST_EMPTY}c${VESK_TEST_HOST}"),
              "a127.0.0.9bc127.0.0.9");
    EXPECT_EQ(replacedIn("${VESK_TEST_EMPTY}"), "");
}

TEST_F(Variables, AreNotSearchedForVariables) {
    EXPECT_EQ(replacedIn("${VESK_TEST_NESTED}"), "${VESK_TEST_HOST}");
}

TEST_F(Variables, CanBeEscaped) {
    EXPECT_EQ(replacedIn("$${VESK_TEST_HOST}"), "${VESK_TEST_HOST}");
    EXPECT_EQ(replacedIn("$$${VESK_TEST_HOST}"), "$${VESK_TEST_HOST}");
    EXPECT_EQ(replacedIn("$${${VESK_TEST_HOST}}"), "${127.0.0.9}");
    EXPECT_EQ(replacedIn("$${"), "${");
}

TEST_F(Variables, OtherDollarsStayAsTheyAre) {
    for (const char* const text : {"$", "$$", "a$b", "$VESK_TEST_HOST", "$$VESK", "{}", "$ {A}"}) {
        EXPECT_EQ(replacedIn(text), text);
    }
}

TEST_F(Variables, ThatCannotBeReplacedAreNamed) {
    EXPECT_EQ(replacedIn("${VESK_TEST_UNSET}"),
              "problem: text needs the environment variable VESK_TEST_UNSET, which is not set");
    EXPECT_EQ(replacedIn("a ${VESK_TEST_HOST"),
              "problem: text has \"${VESK_TEST_HOST\" without \"}\" after it");
    EXPECT_EQ(replacedIn("${VESK_TEST HOST}"),
              "problem: text has \"${VESK_TEST\" without \"}\" after it");
    EXPECT_EQ(replacedIn("${"), "problem: text has \"${\" without the name of a variable after it");
    EXPECT_EQ(replacedIn("${}"),
              "problem: text has \"${\" without the name of a variable after it");
}

TEST_F(Variables, InNamesAreNotReplaced) {
    EXPECT_EQ(
        configurationOf(std::string(listening) +
                        "[flows.\"${VESK_TEST_HOST}\"]\nlabel = 1\nupstream = \"127.0.0.1:1\"")
            .flows.at(1)
            .name,
        "${VESK_TEST_HOST}");
}

TEST_F(Variables, AreReplacedInArraysAndInlineTables) {
    const Configuration configuration = listeningWith(
        "[lateral]\naddress = \"127.0.0.1\"\nport = 1\nindex = 0\ninstances = 2\n"
        "peers = [ { index = 1, address = \"${VESK_TEST_HOST}\" } ]\n");
    EXPECT_EQ(configuration.lateral->peers.at(1), "127.0.0.9");
}

TEST_F(Variables, ThatAreMissingAreTheOnlyProblemOfTheirString) {
    EXPECT_EQ(
        problemsBesides("[flows.alice]\nlabel = 1\nupstream = \"${VESK_TEST_UNSET}\"\n"
                        "colour = 1\n"),
        "3: flows.alice.upstream needs the environment variable VESK_TEST_UNSET, which is not "
        "set\n4: flows.alice.colour is not a known key\n");
}

TEST_F(Variables, ThatAreKeysAreNeverPrinted) {
    EXPECT_EQ(problemsWithFlow("from_peer = { key = \"${VESK_TEST_BAD_KEY}\" }"),
              "4: flows.alice.from_peer.key is not usable: the key has a character that is not a "
              "hex digit\n");
    EXPECT_EQ(problemsWithFlow("from_peer = { key = \"${0011223344556677\" }"),
              "4: flows.alice.from_peer.key has \"${...\" without \"}\" after it\n");
}

TEST_F(Variables, ThatAreKeysAreNotInTheFile) {
    const auto readableWith = [](const char* key) {
        return parseConfiguration(
            std::string(listening) +
                "[flows.a]\nlabel = 1\nupstream = \"127.0.0.1:1\"\nfrom_peer = { key = \"" + key +
                "\" }\n",
            "vesk.toml", true, {});
    };
    EXPECT_TRUE(readableWith("${VESK_TEST_KEY}").configuration);
    EXPECT_FALSE(readableWith("00${VESK_TEST_KEY}").configuration);
    EXPECT_FALSE(readableWith("0011").configuration);
}

}  // namespace
}  // namespace vesk::controller
