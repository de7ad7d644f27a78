#include "commands/command.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vesk::controller {
namespace {

TEST(Command, IsFormattedAsWords) {
    EXPECT_EQ(toLine({"stop", {}, ""}), "stop");
    EXPECT_EQ(toLine({"set", {{"label", "1"}, {"up_port", "2"}}, ""}), "set label 1 up_port 2");
}

TEST(ListSubjects, NamesEachSubjectOnce) {
    EXPECT_EQ(listSubjects({}), "");
    EXPECT_EQ(listSubjects({{"log", {}, "the log level"},
                            {"del", {}, "flow a", 1},
                            {"set", {}, "flow b", 2},
                            {"set", {}, "flow a", 1}}),
              "the log level, flow a, flow b");
}

TEST(ListSubjects, NamesFiveSubjectsAndCountsTheRest) {
    std::vector<Command> commands;
    for (std::uint32_t label = 1; label <= 5; ++label) {
        commands.push_back({"set", {}, "flow " + std::to_string(label), label});
    }
    EXPECT_EQ(listSubjects(commands), "flow 1, flow 2, flow 3, flow 4, flow 5");
    // Masked names may be equal.
    commands.push_back({"set", {}, "flow 5", 6});
    EXPECT_EQ(listSubjects(commands), "flow 1, flow 2, flow 3, flow 4, flow 5 and 1 more");
}

TEST(MaskKeys, ReplacesAKeyByItsLength) {
    EXPECT_EQ(maskKeys("set label 1 down_in_key 00112233 down_in_algo sha1 up_out_key ab"),
              "set label 1 down_in_key <key of 4 bytes> down_in_algo sha1 up_out_key <key of 1 "
              "bytes>");
    EXPECT_EQ(maskKeys("up_in_key 0011 down_out_key 2233"),
              "up_in_key <key of 2 bytes> down_out_key <key of 2 bytes>");
}

TEST(MaskKeys, MasksKeysInALogLineOfTheForwarder) {
    EXPECT_EQ(maskKeys("Got message: set\tlabel 1 up_in_key  0011"),
              "Got message: set\tlabel 1 up_in_key  <key of 2 bytes>");
}

TEST(MaskKeys, LeavesOtherTextUnchanged) {
    for (const char* const text :
         {"", " ", "no key here", "up_in_key", "up_in_key ", "key 0011", "  two  blanks "}) {
        EXPECT_EQ(maskKeys(text), text);
    }
}

}  // namespace
}  // namespace vesk::controller
