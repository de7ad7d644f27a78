#include "commands/command.h"

#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

TEST(Command, IsWordsInARow) {
    EXPECT_EQ(toLine({"stop", {}, ""}), "stop");
    EXPECT_EQ(toLine({"set", {{"label", "1"}, {"up_port", "2"}}, ""}), "set label 1 up_port 2");
}

TEST(MaskKeys, LeavesOnlyTheLengthOfAKey) {
    EXPECT_EQ(maskKeys("set label 1 down_in_key 00112233 down_in_algo sha1 up_out_key ab"),
              "set label 1 down_in_key <key of 4 bytes> down_in_algo sha1 up_out_key <key of 1 "
              "bytes>");
    EXPECT_EQ(maskKeys("up_in_key 0011 down_out_key 2233"),
              "up_in_key <key of 2 bytes> down_out_key <key of 2 bytes>");
}

TEST(MaskKeys, FindsKeysInTheForwardersOwnWords) {
    EXPECT_EQ(maskKeys("Got message: set\tlabel 1 up_in_key  0011"),
              "Got message: set\tlabel 1 up_in_key  <key of 2 bytes>");
}

TEST(MaskKeys, LeavesEverythingElseAlone) {
    for (const char* const text :
         {"", " ", "no key here", "up_in_key", "up_in_key ", "key 0011", "  two  blanks "}) {
        EXPECT_EQ(maskKeys(text), text);
    }
}

}  // namespace
}  // namespace vesk::controller
