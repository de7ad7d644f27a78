#include "child/line_splitter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(LineSplitter, ReturnsWholeLines) {
    LineSplitter splitter;
    EXPECT_THAT(splitter.feed("one\ntwo\nth"), ElementsAre("one", "two"));
    EXPECT_THAT(splitter.feed(""), IsEmpty());
    EXPECT_THAT(splitter.feed("ree"), IsEmpty());
    EXPECT_THAT(splitter.feed("\n\n"), ElementsAre("three", ""));
    EXPECT_EQ(splitter.takeRest(), "");
}

TEST(LineSplitter, ReturnsTheRestAtTheEnd) {
    LineSplitter splitter;
    EXPECT_THAT(splitter.feed("one\ntw"), ElementsAre("one"));
    EXPECT_EQ(splitter.takeRest(), "tw");
    EXPECT_EQ(splitter.takeRest(), "");
}

TEST(LineSplitter, TruncatesALineThatIsTooLong) {
    LineSplitter splitter;
    const std::string half(LineSplitter::longestLine / 2, 'x');
    for (int i = 0; i < 5; ++i) {
        EXPECT_THAT(splitter.feed(half), IsEmpty());
    }
    EXPECT_THAT(splitter.feed("end\nnext\n"), ElementsAre(half + half, "next"));
}

}  // namespace
}  // namespace vesk::controller
