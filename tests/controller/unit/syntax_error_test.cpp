#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>

#include "configuration_text.h"

namespace vesk::controller {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

TEST(SyntaxError, NamesTableKeyColumnAndCause) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"[downstream]\nport = = 1\n",
         "2: table downstream, key port, column 8: the value is not a number, true, false or "
         "a string in quotes\n"},
        {"[downstream]\naddress = 127.0.0.1\n",
         "2: table downstream, key address, column 16: the value is not a number, true, false or "
         "a string in quotes\n"},
        {"[downstream]\nport 1\n",
         "2: table downstream, key port, column 6: \"=\" is missing after the key\n"},
        {"[downstream]\nport =\n",
         "2: table downstream, key port, column 7: the value is missing\n"},
        {"[downstream]\nport = 45 00\n",
         "2: table downstream, key port, column 11: there is text after the value\n"},
        {"[downstream]\naddress = \"::1\nport = 1\n",
         "2: table downstream, key address, column 15: the string has no closing quote\n"},
        {"[downstream\nport = 1\n", "1: column 12: \"]\" is missing after the name of the table\n"},
        {"[flows.a]\nfrom_peer = { key = \"ab\" \n",
         "2: table flows.a, key from_peer.key, column 26: the table in braces is not closed on its "
         "line\n"},
        {"[flows.a]\nto_peer = { key = \"ab\", label = x }\n",
         "2: table flows.a, key to_peer.label, column 33: the value is not a number, true, false "
         "or a string in quotes\n"},
        {"[flows.a]\nto_peer = { key = \"ab\" label = 1 }\n",
         "2: table flows.a, key to_peer.key, column 24: a comma is missing\n"},
        {"[flows.a]\nlabel = 01\n",
         "2: table flows.a, key label, column 11: a number begins with 0\n"},
        {"[lateral]\npeers = [{ index = 1 }\n[downstream]\n",
         "3: table lateral, column 1: the array is not closed by \"]\", or a comma is missing in "
         "it\n"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(problemsOf(text), expected);
    }
}

TEST(SyntaxError, NamesATableOrKeyThatIsDefinedTwice) {
    EXPECT_EQ(problemsOf("[downstream]\nport = 1\n[flows.alice]\n[downstream]\n"),
              "4: table downstream is defined twice, first on line 1\n");
    EXPECT_EQ(problemsOf("[flows]\nalice = { label = 1 }\n[flows.alice]\n"),
              "3: table flows.alice is defined twice\n");
    EXPECT_EQ(problemsOf("[flows.a]\nlabel = 1\nlabel = 2\n"),
              "3: table flows.a, key label, column 9: the key is given twice\n");
    EXPECT_EQ(problemsOf("[flows.a]\nfrom_peer = { key = \"ab\", key = \"cd\" }\n"),
              "2: table flows.a, key from_peer.key, column 33: the key is given twice\n");
    EXPECT_EQ(problemsOf("[downstream]\nport = 1\n[downstream.port]\n"),
              "3: table downstream.port has the name of another key\n");
}

TEST(SyntaxError, DoesNotQuoteTheParser) {
    for (const char* const text :
         {"x = truee", "x = inf1", "x = 0b12", "x = \"\\q\"", "x = 2020-13-01", "x = 1e999999", "]",
          "[]", "[flows.]", "[a b]", "x = 99999999999999999999", "x = {,}", "x = \xff", "x",
          "x = \"\\u12\"", "x = [1,,2]", "# \x01", "\"x = 1", "x = _1"}) {
        const std::string problem = problemsOf(text);
        EXPECT_THAT(problem, StartsWith("1: ")) << text;
        EXPECT_THAT(problem, HasSubstr("column ")) << text;
        EXPECT_THAT(problem, Not(HasSubstr("expected"))) << text;
        EXPECT_THAT(problem, Not(HasSubstr("saw"))) << text;
        EXPECT_THAT(problem, Not(HasSubstr("'"))) << text;
    }
}

TEST(SyntaxError, DoesNotShowAKeyThatWasEnteredAsAName) {
    const std::string key = "7e7e7e7e7e7e7e7e7e7e7e7e7e7e7e7e";
    const std::string grouped = "7e7e-7e7e-7e7e-7e7e-7e7e-7e7e";
    for (const std::string& name : {key, grouped}) {
        for (const std::string& text : {
                 "[flows." + name + "]\nlabel = x\n",
                 "[flows." + name + "]\n[flows." + name + "]\n",
                 "[flows." + name + "\n",
                 "[flows.a]\n" + name + " = x\n",
                 "[flows.a]\n" + name + "\n",
                 "[flows.a]\nfrom_peer = { " + name + " = x }\n",
                 "[flows.a]\nfrom_peer = { key = " + name + " }\n",
             }) {
            EXPECT_THAT(problemsOf(text), testing::MatchesRegex("[12]: .+\n")) << text;
            EXPECT_THAT(problemsOf(text), Not(HasSubstr("7e7e"))) << text;
        }
    }
}

TEST(SyntaxError, NamesTheKeyOfALineWithASecret) {
    EXPECT_EQ(problemsOf("[flows.a]\nto_peer = { key = \"7e7e7e7e7e7e7e7e7e7e\" label = 1 }\n"),
              "2: table flows.a, key to_peer.key, column 42: a comma is missing\n");
}

TEST(SyntaxError, DoesNotShowPartsOfAGroupedKey) {
    for (const std::string_view separator : {" ", "\t", " - ", ":", " \t"}) {
        std::string key = "7e7e7e7e";
        for (int group = 0; group < 3; ++group) {
            key.append(separator).append("7e7e7e7e");
        }
        const std::string problems = problemsOf("[flows.a]\n" + key + " = 1\n");
        EXPECT_NE(problems, "");
        EXPECT_THAT(problems, Not(HasSubstr("7e7e"))) << key;
    }
}

constexpr std::string_view fileWithKeys =
    "[downstream]\naddress = \"127.0.0.1\"\nport = 4500\n"
    "[flows.alice]\nlabel = 0x10001\nupstream = \"127.0.0.1:1\"\n"
    "from_peer = { key = \"7e7e7e7e7e7e7e7e7e7e7e7e7e7e7e7e\", algorithm = \"sha1\" }\n"
    "to_peer = { label = 7, key = '7e7e7e7e7e7e7e7e7e7e7e7e7e7e7e7e' }\n";

TEST(SyntaxError, NamesThePlaceOfANulByte) {
    for (std::size_t at = 0; at < fileWithKeys.size(); ++at) {
        std::string text(fileWithKeys);
        text.insert(at, 1, '\0');
        const std::string_view before = fileWithKeys.substr(0, at);
        const auto line = 1 + std::ranges::count(before, '\n');
        const std::size_t column = at - (before.rfind('\n') + 1) + 1;
        EXPECT_THAT(problemsOf(text),
                    AllOf(StartsWith(std::to_string(line) + ": "),
                          EndsWith("column " + std::to_string(column) + ": there is a NUL byte\n")))
            << at;
    }
}

TEST(SyntaxError, NamesThePlaceOfAControlCharacter) {
    const std::string table = "[downstream]\n";
    const std::pair<std::string, std::string> cases[] = {
        {"\x01", "2: table downstream, column 1: there is a control character\n"},
        {"# a comment \x7f", "2: table downstream, column 13: there is a control character\n"},
        {"port = 1 # a port \x02",
         "2: table downstream, key port, column 19: there is a control "
         "character\n"},
        {"port = \"\xc3\xa4\xc3\xb6\" \x02",
         "2: table downstream, key port, column 13: there is a control "
         "character\n"},
        {"address = '\x1b[m'",
         "2: table downstream, key address, column 12: there is a control "
         "character\n"},
    };
    for (const auto& [line, expected] : cases) {
        EXPECT_EQ(problemsOf(table + line + "\n"), expected);
    }
}

TEST(SyntaxError, NamesACarriageReturnWithinALine) {
    for (const std::string_view text : {"port = 1\rx = 2\n", "# text\rx = 2\n"}) {
        EXPECT_THAT(problemsOf(text),
                    EndsWith("a carriage return is not followed by a line feed\n"));
    }
    EXPECT_EQ(problemsOf("port =\r\n"), "1: key port, column 7: the value is missing\n");
}

TEST(SyntaxError, DoesNotShowKeysOfAFileWithOneCharacterChanged) {
    ASSERT_EQ(problemsOf(fileWithKeys), "");
    int refused = 0;
    for (std::size_t at = 0; at < fileWithKeys.size(); ++at) {
        for (const char change : std::string_view("\"'=,.{}[]# \n\\a7\x01\xff")) {
            std::string text(fileWithKeys);
            text[at] = change;
            const std::string problems = problemsOf(text);
            refused += problems.empty() ? 0 : 1;
            ASSERT_THAT(problems, Not(HasSubstr("7e7e"))) << text;
        }
        const std::string cut(fileWithKeys.substr(0, at));
        ASSERT_THAT(problemsOf(cut), Not(HasSubstr("7e7e"))) << cut;
    }
    EXPECT_GT(refused, 1000);
}

}  // namespace
}  // namespace vesk::controller
