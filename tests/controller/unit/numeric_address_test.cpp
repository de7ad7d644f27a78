#include "config/numeric_address.h"

#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

TEST(NumericAddress, ParsesBothFamilies) {
    EXPECT_EQ(parseHostPort("127.0.0.1:5000"), (HostPort{"127.0.0.1", 5000}));
    EXPECT_EQ(parseHostPort("[::1]:1"), (HostPort{"::1", 1}));
    EXPECT_EQ(parseHostPort("[2001:db8::1]:65535"), (HostPort{"2001:db8::1", 65535}));
}

TEST(NumericAddress, RefusesPortsOutOfRange) {
    for (const char* const text :
         {"127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:", "127.0.0.1", "127.0.0.1:+1",
          "127.0.0.1: 1", "127.0.0.1:1 ", "127.0.0.1:0x1"}) {
        EXPECT_EQ(parseHostPort(text), std::nullopt) << text;
    }
}

TEST(NumericAddress, RefusesHostNamesAndIncompleteAddresses) {
    for (const char* const text : {"localhost:5000", "127.1:5000", "1:5000", ":5000", "[]:5000",
                                   "::1:5000", "[127.0.0.1]:5000", "[::1:5000", "fe80::1%lo:5"}) {
        EXPECT_EQ(parseHostPort(text), std::nullopt) << text;
    }
}

TEST(NumericAddress, RefusesTextWithANul) {
    EXPECT_FALSE(isNumericHost(std::string("127.0.0.1\0x", 11)));
    EXPECT_TRUE(isNumericHost("127.0.0.1"));
    EXPECT_TRUE(isNumericHost("::"));
    EXPECT_FALSE(isNumericHost(""));
}

}  // namespace
}  // namespace vesk::controller
