#include "base/command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/printed.h"

namespace vesk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

TEST(SplitCommandLineTest, SplitsALineIntoWords) {
    EXPECT_THAT(splitCommandLine("start addr 0.0.0.0 port 4500"),
                ElementsAre("start", "addr", "0.0.0.0", "port", "4500"));
}

TEST(SplitCommandLineTest, AcceptsAnyRunOfSeparators) {
    EXPECT_EQ(splitCommandLine("  start\taddr 0.0.0.0 \n port\r\n4500\r"),
              splitCommandLine("start addr 0.0.0.0 port 4500"));
}

TEST(SplitCommandLineTest, FindsNoWordInABlankLine) {
    EXPECT_THAT(splitCommandLine(""), IsEmpty());
    EXPECT_THAT(splitCommandLine(" \t\r\n "), IsEmpty());
}

TEST(SplitCommandLineTest, TreatsOtherWhiteSpaceAsText) {
    EXPECT_THAT(splitCommandLine("a\vb c\fd"), ElementsAre("a\vb", "c\fd"));
    EXPECT_THAT(splitCommandLine("\v"), ElementsAre("\v"));
    EXPECT_THAT(splitCommandLine("a\xc2\xa0 b"), ElementsAre("a\xc2\xa0", "b"));
}

TEST(SplitCommandLineTest, TreatsNulAsText) {
    EXPECT_THAT(splitCommandLine(std::string_view("a\0b c", 5)),
                ElementsAre(std::string("a\0b", 3), "c"));
}

TEST(SplitCommandLineTest, TreatsQuotesAndBackslashesAsText) {
    EXPECT_THAT(splitCommandLine("set 'a b' \"c\" d\\ e"),
                ElementsAre("set", "'a", "b'", "\"c\"", "d\\", "e"));
}

TEST(SplitCommandLineTest, AcceptsAWordOfAMegabyte) {
    const std::string word(1 << 20, 'x');
    EXPECT_THAT(splitCommandLine(" " + word + " y"), ElementsAre(word, "y"));
}

AttributeMap parse(std::string_view words) {
    TokenQueue tokens = splitCommandLine(words);
    AttributeMap attributes = parseCommandAttrs(tokens);
    EXPECT_THAT(tokens, IsEmpty());
    return attributes;
}

TEST(ParseCommandAttrsTest, ReadsPairs) {
    EXPECT_THAT(parse("port 4500 addr 0.0.0.0"),
                ElementsAre(Pair("addr", "0.0.0.0"), Pair("port", "4500")));
    EXPECT_THAT(parse(""), IsEmpty());
}

TEST(ParseCommandAttrsTest, DropsANameWithoutAValue) {
    EXPECT_THAT(parse("priority"), IsEmpty());
    EXPECT_THAT(parse("label 5 up_label"), ElementsAre(Pair("label", "5")));
    EXPECT_THAT(parse("label 5 up_ip"), ElementsAre(Pair("label", "5")));
}

TEST(ParseCommandAttrsTest, KeepsTheFirstValueOfAName) {
    EXPECT_THAT(parse("label a label b"), ElementsAre(Pair("label", "a")));
}

TEST(ParseCommandAttrsTest, JoinsTheHalvesOfEveryAddress) {
    EXPECT_THAT(parse("down_ip a down_port 1 up_ip b up_port 2 up_src_ip c up_src_port 3 "
                      "up_aux_flow_ip d up_aux_flow_port 4"),
                ElementsAre(Pair("down_addrinfo", "a|1"), Pair("up_addrinfo", "b|2"),
                            Pair("up_aux_flow_addrinfo", "d|4"), Pair("up_src_addrinfo", "c|3")));
}

TEST(ParseCommandAttrsTest, KeepsTheLastValueOfAHalf) {
    EXPECT_THAT(parse("up_ip 10.0.0.1 up_port 4500 up_port 4600"),
                ElementsAre(Pair("up_addrinfo", "10.0.0.1|4600")));
}

TEST(ParseCommandAttrsTest, JoinsASingleHalfWithAnEmptyOne) {
    EXPECT_THAT(parse("up_port 4500"), ElementsAre(Pair("up_addrinfo", "|4500")));
    EXPECT_THAT(parse("up_ip 10.0.0.1"), ElementsAre(Pair("up_addrinfo", "10.0.0.1|")));
}

TEST(ParseCommandAttrsTest, PrefersAWholeAddressToItsHalves) {
    EXPECT_THAT(parse("up_addrinfo 1.2.3.4|5 up_ip 9.9.9.9"),
                ElementsAre(Pair("up_addrinfo", "1.2.3.4|5")));
    EXPECT_THAT(parse("up_ip 9.9.9.9 up_addrinfo 1.2.3.4|5"),
                ElementsAre(Pair("up_addrinfo", "1.2.3.4|5")));
}

TEST(ParseCommandAttrsTest, MatchesNamesExactly) {
    EXPECT_THAT(parse("Up_ip a UP_PORT 1"), ElementsAre(Pair("UP_PORT", "1"), Pair("Up_ip", "a")));
    EXPECT_THAT(parse("down_src_ip a"), ElementsAre(Pair("down_src_ip", "a")));
}

TEST(FindNonEmptyTest, FindsOnlyNonEmptyValues) {
    const AttributeMap attributes{{"a", "1"}, {"b", ""}};
    ASSERT_NE(findNonEmpty(attributes, "a"), nullptr);
    EXPECT_EQ(*findNonEmpty(attributes, "a"), "1");
    EXPECT_EQ(findNonEmpty(attributes, "b"), nullptr);
    EXPECT_EQ(findNonEmpty(attributes, "c"), nullptr);
}

TEST(DescribeLeftoverTest, ReportsTheNameThatLacksAValue) {
    EXPECT_EQ(printedBy([] {
                  EXPECT_FALSE(consumedWhole({"port", "x"}, "setLogParams"));
              }),
              "error setLogParams: bad command, missing value after port\n");
    EXPECT_EQ(printedBy([] { EXPECT_TRUE(consumedWhole({}, "setLogParams")); }), "");
}

}  // namespace
}  // namespace vesk
