#include "child/line_splitter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(LineSplitter, GivesWholeLines) {
    LineSplitter splitter;
    EXPECT_THAT(splitter.feed("one\ntwo\nth"), ElementsAre("one", "two"));
    EXPECT_THAT(splitter.feed(""), IsEmpty());
    EXPECT_THAT(splitter.feed("ree"), IsEmpty());
    EXPECT_THAT(splitter.feed("\n\n"), ElementsAre("three", ""));
    EXPECT_EQ(splitter.takeRest(), "");
}

TEST(LineSplitter, GivesTheRestAtTheEnd) {
    LineSplitter splitter;
    EXPECT_THAT(splitter.feed("one\ntw"), ElementsAre("one"));
    EXPECT_EQ(splitter.takeRest(), "tw");
    EXPECT_EQ(splitter.takeRest(), "");
}

}  // namespace
}  // namespace vesk::controller
