#include "service/log_kind.h"

#include <gtest/gtest.h>

#include <string>

namespace vesk::controller {
namespace {

std::string nameOfKind(std::string_view text) {
    return logKindOf(LogLevel::info, text).name;
}

TEST(LogKind, IgnoresNumbersAndAddresses) {
    EXPECT_EQ(nameOfKind("Endpoint socket bound: 127.0.0.1|4500 (6)"),
              nameOfKind("Endpoint socket bound: fe80::a:1|65535 (1024)"));
    EXPECT_EQ(nameOfKind("Bound upstream endpoint to 10.0.0.1:5000"),
              nameOfKind("Bound upstream endpoint to fd00::1:5001"));
    EXPECT_EQ(nameOfKind("Created pollLoop thread: 7f945ffff6c0"),
              nameOfKind("Created pollLoop thread: a0b1"));
    EXPECT_EQ(nameOfKind("errno = 11 (e)."), nameOfKind("errno = 9 (e)."));
    EXPECT_EQ(nameOfKind("RxDg:1,TxDg:22"), nameOfKind("RxDg:333,TxDg:4"));
    EXPECT_EQ(nameOfKind("fe80::1%eth0|1 is"), nameOfKind("fe80::2%eth12|2 is"));
}

TEST(LogKind, DistinguishesWordsAndLevels) {
    EXPECT_NE(nameOfKind("added 1"), nameOfKind("faded 1"));
    EXPECT_NE(nameOfKind("a face"), nameOfKind("a bed"));
    EXPECT_NE(nameOfKind("Failed HMAC Check!"), nameOfKind("Failed label Check!"));
    EXPECT_NE(logKindOf(LogLevel::info, "x").name, logKindOf(LogLevel::warn, "x").name);
}

TEST(LogKind, DistinguishesLabels) {
    const char* const line = "Created upstream endpoint: label 0x10001/65537 sockfds 7 8";
    EXPECT_TRUE(logKindOf(LogLevel::info, line).namesLabel);
    EXPECT_EQ(nameOfKind(line),
              nameOfKind("Created upstream endpoint: label 0x10001/65537 sockfds 11 12"));
    EXPECT_NE(nameOfKind(line),
              nameOfKind("Created upstream endpoint: label 0x10002/65538 sockfds 7 8"));
    EXPECT_TRUE(logKindOf(LogLevel::error, "setLabelAttrs: bad command for label 7").namesLabel);
    EXPECT_NE(nameOfKind("label 7"), nameOfKind("label 8"));
    EXPECT_TRUE(logKindOf(LogLevel::debug, "Got message: set label 7 up_port 1").namesLabel);
    EXPECT_EQ(nameOfKind("Got message: set label 7 up_label 1"),
              nameOfKind("Got message: set label 7 up_label 2"));
    EXPECT_FALSE(logKindOf(LogLevel::warn, "a label that nobody declared").namesLabel);
    EXPECT_FALSE(logKindOf(LogLevel::warn, "label prefix 5").namesLabel);
}

TEST(LogKind, HasANameOfBoundedLength) {
    EXPECT_LT(nameOfKind(std::string(1000000, 'y')).size(), 300U);
    EXPECT_LT(nameOfKind("label " + std::string(1000000, '1')).size(), 300U);
    EXPECT_EQ(nameOfKind(""), "info ");
}

}  // namespace
}  // namespace vesk::controller
