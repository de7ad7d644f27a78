#include "app/environment.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace vesk {
namespace {

const char* const variable = "VESK_IPV4_SOURCE";

class EnvironmentTest : public testing::Test {
 protected:
    void TearDown() override { unsetenv(variable); }
};

TEST_F(EnvironmentTest, LeavesTheSourceToTheKernelByDefault) {
    unsetenv(variable);
    EXPECT_EQ(ipv4SourceFromEnvironment(), Ipv4Source::kernel);
}

TEST_F(EnvironmentTest, RepliesFromTheArrivalAddressForTheExactWordOnly) {
    setenv(variable, "arrival", 1);
    EXPECT_EQ(ipv4SourceFromEnvironment(), Ipv4Source::arrival);
    for (const char* const other :
         {"", "kernel", "Arrival", "ARRIVAL", " arrival", "arrival ", "arrivals", "arriva", "1"}) {
        setenv(variable, other, 1);
        EXPECT_EQ(ipv4SourceFromEnvironment(), Ipv4Source::kernel) << '"' << other << '"';
    }
}

}  // namespace
}  // namespace vesk
