#include "control/command_attributes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>

#include "support/printed.h"

namespace vesk {
namespace {

class CommandAttributesTest : public testing::Test {
 protected:
    CommandAttributesTest() {
        // The largest number is refused if errno is ERANGE already.
        errno = 0;
    }

    static CommandAttributes attributesOf(TokenQueue tokens) {
        return CommandAttributes::parse("routine", tokens).value();
    }
};

const std::string complains = "error routine: bad command, ";

TEST_F(CommandAttributesTest, ParsesAllWords) {
    TokenQueue tokens{"addr", "127.0.0.1", "port", "4500", "last"};
    EXPECT_EQ(printedBy([&] {
                  const auto attributes = CommandAttributes::parse("routine", tokens);
                  ASSERT_TRUE(attributes.has_value());
                  EXPECT_EQ(*attributes->text("addr"), "127.0.0.1");
                  EXPECT_EQ(*attributes->text("port"), "4500");
              }),
              "");
    EXPECT_TRUE(tokens.empty());
}

TEST_F(CommandAttributesTest, AcceptsACommandWithoutWords) {
    TokenQueue tokens;
    EXPECT_TRUE(CommandAttributes::parse("routine", tokens).has_value());
}

TEST_F(CommandAttributesTest, RefusesAMissingOrEmptyText) {
    const CommandAttributes attributes = attributesOf({"empty", "", "last"});
    for (const std::string name : {"empty", "last", "absent"}) {
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(attributes.text(name), nullptr); }),
                  complains + "missing or empty '" + name + "' attr\n");
    }
}

TEST_F(CommandAttributesTest, ReadsNumbersUpToTheirLimits) {
    const CommandAttributes attributes =
        attributesOf({"none", "0", "hexadecimal", "0x10", "largest32", "4294967295", "largest",
                      "18446744073709551615"});
    EXPECT_EQ(printedBy([&] {
                  EXPECT_EQ(attributes.number("none", "no"), 0U);
                  EXPECT_EQ(attributes.number32("none", "no"), 0U);
                  EXPECT_EQ(attributes.number("hexadecimal", "no"), 16U);
                  EXPECT_EQ(attributes.number32("hexadecimal", "no"), 16U);
                  EXPECT_EQ(attributes.number32("largest32", "no"), 4294967295U);
                  EXPECT_EQ(attributes.number("largest", "no"),
                            std::numeric_limits<std::uint64_t>::max());
              }),
              "");
}

TEST_F(CommandAttributesTest, RefusesTextsThatAreNotSuchNumbers) {
    const CommandAttributes attributes =
        attributesOf({"word", "x1", "rest", "1x", "empty", "", "beyond32", "4294967296", "beyond",
                      "18446744073709551616"});
    const auto number = [&](const char* name) {
        return printedBy([&] { EXPECT_EQ(attributes.number(name, "bad: "), std::nullopt); });
    };
    const auto number32 = [&](const char* name) {
        return printedBy([&] { EXPECT_EQ(attributes.number32(name, "bad: "), std::nullopt); });
    };
    EXPECT_EQ(number("word"), complains + "bad: x1\n");
    EXPECT_EQ(number("rest"), complains + "bad: 1x\n");
    EXPECT_EQ(number("beyond"), complains + "bad: 18446744073709551616\n");
    EXPECT_EQ(number32("word"), complains + "bad: x1\n");
    EXPECT_EQ(number32("beyond32"), complains + "bad: 4294967296\n");
    EXPECT_EQ(number32("beyond"), complains + "bad: 18446744073709551616\n");
    for (const std::string name : {"empty", "absent"}) {
        const std::string missing = complains + "missing or empty '" + name + "' attr\n";
        EXPECT_EQ(number(name.c_str()), missing);
        EXPECT_EQ(number32(name.c_str()), missing);
    }
}

TEST_F(CommandAttributesTest, ReadsAListenAddressWithoutLookingItUp) {
    const auto listen = attributesOf({"port", "70000", "addr", "no.such.host"}).listenAddress("no");
    ASSERT_TRUE(listen.has_value());
    EXPECT_EQ(listen->address, "no.such.host");
    // The caller decides what becomes of a number above 65535.
    EXPECT_EQ(listen->port, 70000U);
}

TEST_F(CommandAttributesTest, ReportsOnlyTheFirstMistakeInAListenAddress) {
    const auto printed = [](TokenQueue tokens) {
        const CommandAttributes attributes = attributesOf(std::move(tokens));
        return printedBy([&] { EXPECT_FALSE(attributes.listenAddress(" Bad port ").has_value()); });
    };
    EXPECT_EQ(printed({"port", "x"}), complains + "missing or empty 'addr' attr\n");
    EXPECT_EQ(printed({"addr", "", "port", "x"}), complains + "missing or empty 'addr' attr\n");
    EXPECT_EQ(printed({"addr", "::1"}), complains + "missing or empty 'port' attr\n");
    EXPECT_EQ(printed({"addr", "::1", "port", "x"}), complains + " Bad port x\n");
}

TEST_F(CommandAttributesTest, PrintsAComplaintWithOrWithoutAText) {
    const CommandAttributes attributes = attributesOf({});
    EXPECT_EQ(printedBy([&] { attributes.refuse("bad index ", "5"); }),
              complains + "bad index 5\n");
    EXPECT_EQ(printedBy([&] { attributes.refuse("bad index"); }), complains + "bad index\n");
}

}  // namespace
}  // namespace vesk
