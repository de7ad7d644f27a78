// Answers that need no name server. Those of a server are tested with the whole controller.
#include "names/name_questions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<NameAnswer> answersTo(const std::vector<NameQuestion>& asked) {
    NameQuestions questions;
    questions.ask(asked);
    return questions.take();
}

TEST(NameQuestions, ANumericAddressIsItsOwnAnswer) {
    const auto answers = answersTo({{3, "192.0.2.7", false}, {4, "2001:db8::7", true}});
    ASSERT_EQ(answers.size(), 2U);
    EXPECT_EQ(answers[0].index, 3U);
    EXPECT_THAT(answers[0].addresses, ElementsAre("192.0.2.7"));
    EXPECT_EQ(answers[0].problem, "");
    EXPECT_THAT(answers[1].addresses, ElementsAre("2001:db8::7"));
}

TEST(NameQuestions, DroppedQuestionsAreNotAnswered) {
    NameQuestions questions;
    EXPECT_FALSE(questions.dueAt());
    questions.ask({{1, "192.0.2.7", false}});
    questions.drop();
    EXPECT_THAT(questions.take(), IsEmpty());
    EXPECT_THAT(questions.watched(), IsEmpty());
    EXPECT_FALSE(questions.dueAt());
}

}  // namespace
}  // namespace vesk::controller
