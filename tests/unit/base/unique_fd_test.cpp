#include "base/unique_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <type_traits>
#include <utility>

#include "support/descriptors.h"

namespace vesk {
namespace {

static_assert(!std::is_copy_constructible_v<UniqueFd> && !std::is_copy_assignable_v<UniqueFd>);
static_assert(std::is_nothrow_move_constructible_v<UniqueFd>);
static_assert(!std::is_convertible_v<UniqueFd, int> && !std::is_convertible_v<int, UniqueFd>);

int openAny() {
    return open("/dev/null", O_RDONLY);
}

class UniqueFdTest : public DescriptorCountingTest {};

TEST_F(UniqueFdTest, HoldsNothingByDefault) {
    const UniqueFd fd;
    EXPECT_EQ(fd.get(), -1);
    EXPECT_FALSE(fd);
}

TEST_F(UniqueFdTest, ClosesItsDescriptorInItsDestructor) {
    int number = -1;
    {
        const UniqueFd fd(openAny());
        number = fd.get();
        EXPECT_TRUE(fd);
        EXPECT_TRUE(isOpen(number));
    }
    EXPECT_FALSE(isOpen(number));
}

TEST_F(UniqueFdTest, HoldsDescriptorZeroLikeAnyOther) {
    UniqueFd fd(0);
    EXPECT_TRUE(fd);
    EXPECT_EQ(fd.release(), 0);
}

TEST_F(UniqueFdTest, MovesWithoutClosing) {
    UniqueFd from(openAny());
    const int number = from.get();
    UniqueFd to(std::move(from));
    EXPECT_EQ(from.get(), -1);  // NOLINT(bugprone-use-after-move): the moved-from state is tested
    EXPECT_EQ(to.get(), number);
    EXPECT_TRUE(isOpen(number));
}

TEST_F(UniqueFdTest, ClosesTheOldDescriptorOnAssignment) {
    UniqueFd first(openAny());
    UniqueFd second(openAny());
    const int old = first.get();
    const int kept = second.get();
    first = std::move(second);
    EXPECT_FALSE(isOpen(old));
    EXPECT_EQ(first.get(), kept);
    EXPECT_TRUE(isOpen(kept));
}

TEST_F(UniqueFdTest, KeepsItsDescriptorOnSelfAssignment) {
    UniqueFd fd(openAny());
    const int number = fd.get();
    UniqueFd& same = fd;
    fd = std::move(same);
    EXPECT_EQ(fd.get(), number);
    EXPECT_TRUE(isOpen(number));
}

TEST_F(UniqueFdTest, ReleasesWithoutClosing) {
    UniqueFd fd(openAny());
    const UniqueFd taker(fd.release());
    EXPECT_FALSE(fd);
    EXPECT_TRUE(isOpen(taker.get()));
}

TEST_F(UniqueFdTest, ClosesOnReset) {
    UniqueFd fd(openAny());
    const int number = fd.get();
    fd.reset();
    EXPECT_FALSE(isOpen(number));
    EXPECT_FALSE(fd);
}

TEST_F(UniqueFdTest, KeepsItsDescriptorWhenResetToTheSameOne) {
    UniqueFd fd(openAny());
    fd.reset(fd.get());
    EXPECT_TRUE(isOpen(fd.get()));
}

}  // namespace
}  // namespace vesk
