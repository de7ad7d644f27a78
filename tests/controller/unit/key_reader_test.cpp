#include "config/key_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "temporary_folder.h"

namespace vesk::controller {
namespace {

using testing::HasSubstr;
using testing::Not;

TEST(KeyReader, ConvertsHexDigitsToLowerCase) {
    EXPECT_EQ(readKey("00AAbbFF").digits, "00aabbff");
    EXPECT_EQ(readKey("00AAbbFF").problem, "");
    EXPECT_EQ(readKey("ab").digits, "ab");
    EXPECT_EQ(readKey(std::string(256, 'e')).digits, std::string(256, 'e'));
}

TEST(KeyReader, ReportsTheProblemWithoutShowingADigit) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "empty"},
        {"abc", "odd number"},
        {"7e7e7g", "not a hex digit"},
        {"7e 7e", "not a hex digit"},
        {std::string(258, '7'), "longer than 128 bytes"},
    };
    for (const auto& [text, reason] : cases) {
        const KeyReading key = readKey(text);
        EXPECT_EQ(key.digits, "");
        EXPECT_THAT(key.problem, HasSubstr(reason));
        EXPECT_THAT(key.problem, Not(HasSubstr("7e")));
    }
}

TEST(KeyReader, IgnoresWhiteSpaceInAFile) {
    const TemporaryFolder folder;
    EXPECT_EQ(readKeyFile(folder.write("key", "0011 2233\n\t44AA\r\n"), false).digits,
              "0011223344aa");
}

TEST(KeyReader, RefusesFilesThatOthersCanRead) {
    const TemporaryFolder folder;
    for (const mode_t mode : {0640U, 0604U, 0644U}) {
        const auto file = folder.write("key", "0011", mode);
        EXPECT_THAT(readKeyFile(file, false).problem, HasSubstr("is readable by others"));
        EXPECT_EQ(readKeyFile(file, true).digits, "0011");
    }
    EXPECT_EQ(readKeyFile(folder.write("key", "0011", 0400), false).digits, "0011");
}

TEST(KeyReader, NamesAFileThatIsNotUsable) {
    const TemporaryFolder folder;
    EXPECT_THAT(readKeyFile(folder.path(), false).problem,
                HasSubstr(folder.path().string() + " is not a regular file"));
    EXPECT_THAT(readKeyFile(folder.write("key", "77x7"), false).problem, HasSubstr("key: the key"));
    EXPECT_THAT(readKeyFile(folder.write("key", std::string(5000, '7')), false).problem,
                HasSubstr("larger than 4096 bytes"));
}

TEST(KeyReader, NamesAMissingFile) {
    const TemporaryFolder folder;
    EXPECT_EQ(
        readKeyFile(folder.path() / "alice.key", false).problem,
        (folder.path() / "alice.key").string() + " cannot be read: No such file or directory");
}

TEST(KeyReader, DoesNotShowAKeyThatWasEnteredAsAPath) {
    const TemporaryFolder folder;
    const std::string key = "7e7e7e7e7e7e7e7e";
    EXPECT_EQ(readKeyFile(folder.path() / key, false).problem,
              "the file cannot be read: No such file or directory");
    // One that is too long for a file name, and one that looks like a path with a folder.
    for (const std::string& text : {std::string(256, '7'), "7777/" + key}) {
        const std::string problem = readKeyFile(folder.path() / text, false).problem;
        EXPECT_THAT(problem, HasSubstr("cannot be read"));
        EXPECT_THAT(problem, Not(HasSubstr("777")));
    }
}

TEST(KeyReader, DoesNotWaitForTheWriterOfAPipe) {
    const TemporaryFolder folder;
    const auto pipe = folder.path() / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_THAT(readKeyFile(pipe, false).problem, HasSubstr("not a regular file"));
}

}  // namespace
}  // namespace vesk::controller
