#include "log/error_text.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace vesk {
namespace {

TEST(ErrorTextTest, IsTheTextOfTheSystem) {
    EXPECT_EQ(errorText(EADDRINUSE), "Address already in use");
    EXPECT_EQ(errorText(0), "Success");
    EXPECT_EQ(errorText(99999), "Unknown error 99999");
    EXPECT_EQ(errorText(-1), "Unknown error -1");
}

}  // namespace
}  // namespace vesk
