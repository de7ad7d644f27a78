#include "service/log_output.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <thread>

#include "base/unique_fd.h"
#include "temporary_folder.h"

namespace vesk::controller {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class LogOutputTest : public testing::Test {
 protected:
    LogOutputTest() {
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        reader.reset(ends[0]);
        writer.reset(ends[1]);
        fcntl(reader.get(), F_SETFL, O_NONBLOCK);
    }

    /// Reads what is in the pipe.
    std::string arrived() const {
        std::string text;
        std::array<char, 65536> piece{};
        for (ssize_t got = 0; (got = read(reader.get(), piece.data(), piece.size())) > 0;) {
            text.append(piece.data(), static_cast<std::size_t>(got));
        }
        return text;
    }

    UniqueFd reader;
    UniqueFd writer;
};

TEST(FormatLine, HasTheFormOfItsReader) {
    EXPECT_EQ(formatLine(LogForm::words, LogLevel::warn, "text"), "warn text");
    EXPECT_EQ(formatLine(LogForm::words, LogLevel::none, "text"), "text");
    EXPECT_EQ(formatLine(LogForm::journal, LogLevel::error, "text"), "<3>text");
    EXPECT_EQ(formatLine(LogForm::journal, LogLevel::warn, "text"), "<4>text");
    EXPECT_EQ(formatLine(LogForm::journal, LogLevel::info, "text"), "<6>text");
    EXPECT_EQ(formatLine(LogForm::journal, LogLevel::trace, "text"), "<7>text");
    EXPECT_EQ(formatLine(LogForm::journal, LogLevel::none, "text"), "text");
}

TEST_F(LogOutputTest, UsesTheJournalsFormOnlyForTheJournalsStream) {
    struct stat status {};
    ASSERT_EQ(fstat(writer.get(), &status), 0);
    const std::string stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    unsetenv("JOURNAL_STREAM");
    EXPECT_EQ(logFormOf(writer.get()), LogForm::words);
    setenv("JOURNAL_STREAM", "1:1", 1);
    EXPECT_EQ(logFormOf(writer.get()), LogForm::words);
    setenv("JOURNAL_STREAM", stream.c_str(), 1);
    EXPECT_EQ(logFormOf(writer.get()), LogForm::journal);
    unsetenv("JOURNAL_STREAM");
}

TEST_F(LogOutputTest, WritesWithoutWaitingIfThereIsRoom) {
    LogOutput log(writer.get(), LogForm::words);
    log.write(LogLevel::info, "theirs");
    log.say(LogLevel::error, "ours");
    EXPECT_TRUE(log.pending());
    log.flush();
    EXPECT_FALSE(log.pending());
    EXPECT_EQ(arrived(), "info theirs\nerror controller: ours\n");
}

TEST_F(LogOutputTest, NeverWaitsForAReader) {
    LogOutput log(writer.get(), LogForm::words);
    const std::string text(1000, 'x');
    for (int i = 0; i < 1000; ++i) {
        log.write(LogLevel::info, text);
        log.flush();
    }
    EXPECT_TRUE(log.pending());
    std::size_t bytes = 0;
    while (log.pending()) {
        bytes += arrived().size();
        log.flush();
    }
    bytes += arrived().size();
    EXPECT_EQ(bytes, 1000U * 1006U);
}

TEST_F(LogOutputTest, CountsLinesThatExceedTheBacklog) {
    LogOutput log(writer.get(), LogForm::words);
    const std::string text(100000, 'x');
    for (int i = 0; i < 200; ++i) {
        log.write(LogLevel::info, text);
    }
    std::string seen;
    while (log.pending()) {
        log.flush();
        seen += arrived();
    }
    log.write(LogLevel::info, "later");
    log.flush();
    seen = arrived();
    EXPECT_THAT(seen, StartsWith("warn controller: "));
    EXPECT_THAT(seen, HasSubstr(" lines were lost"));
    EXPECT_THAT(seen, EndsWith("info later\n"));
}

TEST_F(LogOutputTest, PassesOnTwentyLinesOfAKindAndTheCountOfTheRest) {
    LogOutput log(writer.get(), LogForm::words);
    for (int i = 0; i < 100; ++i) {
        log.passOn({LogLevel::none, "line " + std::to_string(i)});
    }
    log.flush();
    const std::string seen = arrived();
    EXPECT_THAT(seen, HasSubstr("line 19\n"));
    // More than 20 if the machine took seconds for the loop.
    EXPECT_LT(std::ranges::count(seen, '\n'), 50);
    EXPECT_TRUE(log.countDueAt());
    log.finish();
    const std::string told = arrived();
    EXPECT_THAT(told, StartsWith("warn controller: "));
    EXPECT_THAT(told, HasSubstr(" more lines like this were left out: line "));
}

TEST_F(LogOutputTest, PassesOnAllLinesWithoutALimit) {
    LogOutput log(writer.get(), LogForm::words);
    log.setLimited(false);
    for (int i = 0; i < 100; ++i) {
        log.passOn({LogLevel::info, "line " + std::to_string(i)});
    }
    log.finish();
    EXPECT_THAT(arrived(), EndsWith("info line 99\n"));
    EXPECT_FALSE(log.countDueAt());
}

TEST_F(LogOutputTest, DoesNotLimitMessagesOfTheController) {
    LogOutput log(writer.get(), LogForm::words);
    for (int i = 0; i < 100; ++i) {
        log.say(LogLevel::error, "flow " + std::to_string(i) + " was refused");
    }
    log.finish();
    const std::string seen = arrived();
    EXPECT_EQ(std::ranges::count(seen, '\n'), 100);
}

TEST_F(LogOutputTest, FinishesInTimeWithASlowReader) {
    LogOutput log(writer.get(), LogForm::words);
    const std::string text(1000, 'x');
    for (int i = 0; i < 4000; ++i) {
        log.write(LogLevel::info, text);
    }
    // This reader would need a minute and a half for all lines.
    std::atomic<bool> over = false;
    std::thread slow([&] {
        std::array<char, 4096> piece{};
        while (!over) {
            if (read(reader.get(), piece.data(), piece.size()) < 0 && errno != EAGAIN) {
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(90));
        }
    });
    const auto began = std::chrono::steady_clock::now();
    log.finish();
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(20));
    EXPECT_TRUE(log.pending());
    over = true;
    slow.join();
}

/// Limits the size of files, so that writing fails with EFBIG as with a full disk.
void limitFiles(rlim_t size) {
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = size;
    setrlimit(RLIMIT_FSIZE, &limit);
}

TEST(LogOutputToAFile, CountsLinesLostToAFullDisk) {
    std::signal(SIGXFSZ, SIG_IGN);
    const TemporaryFolder folder;
    const std::string path = folder.write("log", "").string();
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    LogOutput log(file.get(), LogForm::words);
    limitFiles(0);
    for (const char* const line : {"first", "second\nthird"}) {
        log.write(LogLevel::info, line);
        log.flush();
    }
    EXPECT_FALSE(log.pending());
    limitFiles(RLIM_INFINITY);
    for (const char* const line : {"fourth", "fifth"}) {
        log.write(LogLevel::info, line);
        log.flush();
    }
    std::ifstream written(path);
    EXPECT_EQ(
        std::string(std::istreambuf_iterator<char>(written), {}),
        "info fourth\nwarn controller: 3 lines were lost: the log was not read or could not be "
        "written\ninfo fifth\n");
}

TEST_F(LogOutputTest, ContinuesWithoutAReader) {
    signal(SIGPIPE, SIG_IGN);
    reader.reset();
    LogOutput log(writer.get(), LogForm::words);
    log.write(LogLevel::info, "unheard");
    log.flush();
    EXPECT_FALSE(log.pending());
    log.finish();
}

}  // namespace
}  // namespace vesk::controller
