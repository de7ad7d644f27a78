#include "control/command_loop.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "support/descriptors.h"
#include "support/printed.h"

namespace vesk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using File = std::unique_ptr<std::FILE, decltype(&std::fclose)>;

const char* const endOfInput = "info cltMessageLoop: Got EOF, exiting...\n\n";

/// An input that yields `text`, then the end of input or a read error.
struct ScriptedInput {
    std::string text;
    bool failsAtTheEnd = false;
    std::size_t given = 0;

    static ssize_t read(void* cookie, char* buffer, std::size_t room) {
        auto& input = *static_cast<ScriptedInput*>(cookie);
        const std::size_t count = std::min(room, input.text.size() - input.given);
        std::copy_n(input.text.begin() + static_cast<std::ptrdiff_t>(input.given), count, buffer);
        input.given += count;
        return count == 0 && input.failsAtTheEnd ? -1 : static_cast<ssize_t>(count);
    }
};

class CommandLoopTest : public testing::Test {
 protected:
    /// Runs the loop over the input, collects the lines and returns what is printed.
    std::string run(std::FILE* input) {
        return printedBy([&] {
            EXPECT_EQ(
                cltMessageLoop([this](std::string_view line) { lines.emplace_back(line); }, input),
                0);
        });
    }
    std::string run(const std::string& text, bool failsAtTheEnd = false) {
        ScriptedInput input{text, failsAtTheEnd};
        const File file(fopencookie(&input, "r", {ScriptedInput::read, nullptr, nullptr, nullptr}),
                        &std::fclose);
        return run(file.get());
    }

    std::vector<std::string> lines;
};

TEST_F(CommandLoopTest, PassesEveryLineOnWithoutItsNewline) {
    EXPECT_EQ(run("one\ntwo words\n\n three \n"), endOfInput);
    EXPECT_THAT(lines, ElementsAre("one", "two words", "", " three "));
}

TEST_F(CommandLoopTest, EndsOnEmptyInput) {
    EXPECT_EQ(run(""), endOfInput);
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(CommandLoopTest, PassesOnALastLineWithoutANewline) {
    EXPECT_EQ(run("one\ntwo"), endOfInput);
    EXPECT_THAT(lines, ElementsAre("one", "two"));
}

TEST_F(CommandLoopTest, KeepsEveryOtherByte) {
    const std::string text("a\0b\v\f\r\xff", 7);
    run(text + "\n" + std::string("\0", 1) + "\n");
    EXPECT_THAT(lines, ElementsAre(text, std::string("\0", 1)));
}

TEST_F(CommandLoopTest, AcceptsALineOfAMegabyte) {
    const std::string line(1 << 20, 'x');
    run(line + "\nshort\n");
    EXPECT_THAT(lines, ElementsAre(line, "short"));
}

TEST_F(CommandLoopTest, EndsSilentlyAfterAReadError) {
    EXPECT_EQ(run("one\n", true), "");
    EXPECT_THAT(lines, ElementsAre("one"));
}

TEST_F(CommandLoopTest, DropsALineCutOffByAReadError) {
    EXPECT_EQ(run("one\ndel label 1", true), "");
    EXPECT_THAT(lines, ElementsAre("one"));
}

TEST_F(CommandLoopTest, EndsSilentlyWhenTheInputCannotBeRead) {
    const File directory(fdopen(open("/", O_RDONLY), "r"), &std::fclose);
    ASSERT_NE(directory, nullptr);
    EXPECT_EQ(run(directory.get()), "");
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(CommandLoopTest, PassesALineOnBeforeTheNextOneArrives) {
    Pipe pipe;
    const File input(fdopen(pipe.read.release(), "r"), &std::fclose);
    EXPECT_EQ(write(pipe.write.get(), "one\n", 4), 4);
    EXPECT_EQ(printedBy([&] {
                  cltMessageLoop(
                      [&](std::string_view line) {
                          lines.emplace_back(line);
                          if (lines.size() == 1) {
                              EXPECT_EQ(write(pipe.write.get(), "two\n", 4), 4);
                          }
                          if (lines.size() == 2) {
                              pipe.write.reset();
                          }
                      },
                      input.get());
              }),
              endOfInput);
    EXPECT_THAT(lines, ElementsAre("one", "two"));
}

TEST_F(CommandLoopTest, IsSilentBelowItsLevel) {
    const AtLogLevel level("warn");
    EXPECT_EQ(run("one\n"), "");
}

TEST_F(CommandLoopTest, PropagatesAnException) {
    ScriptedInput input{"one\ntwo\n"};
    const File file(fopencookie(&input, "r", {ScriptedInput::read, nullptr, nullptr, nullptr}),
                    &std::fclose);
    EXPECT_THROW(
        cltMessageLoop([](std::string_view) { throw std::runtime_error("resolver"); }, file.get()),
        std::runtime_error);
}

}  // namespace
}  // namespace vesk
