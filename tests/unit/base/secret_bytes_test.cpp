#include "base/secret_bytes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "support/object_room.h"

namespace vesk {
namespace {

const Bytes secret(32, 0xa7);

TEST(SecretBytesTest, AreWipedOnDestruction) {
    Room<SecretBytes<32>> room;
    SecretBytes<32>& bytes = room.make();
    std::ranges::copy(secret, bytes.begin());
    EXPECT_TRUE(room.holds(secret));
    std::destroy_at(&bytes);
    EXPECT_THAT(room.contents(), testing::Each(0));
}

TEST(SecretBytesTest, AreWipedInCopiesToo) {
    SecretBytes<32> original;
    std::ranges::copy(secret, original.begin());
    Room<SecretBytes<32>> room;
    SecretBytes<32>& copy = room.make(original);
    EXPECT_EQ(copy, original);
    std::destroy_at(&copy);
    EXPECT_THAT(room.contents(), testing::Each(0));
    EXPECT_THAT(original, testing::ElementsAreArray(secret));
}

}  // namespace
}  // namespace vesk
