#include <gtest/gtest.h>

#include <string>

#include "control/control_fixture.h"
#include "control/forwarder_commands.h"
#include "log/log.h"

namespace vesk {
namespace {

class LogCommandTest : public ControlTest {
 protected:
    void TearDown() override {
        setLogLevelByName("info");
        ControlTest::TearDown();
    }
};

TEST_F(LogCommandTest, ChangesTheLevel) {
    const Outcome outcome = run(setLogParams, "priority trace");
    EXPECT_TRUE(outcome.succeeded);
    EXPECT_EQ(outcome.printed, "");
    EXPECT_TRUE(logEnabled(LogLevel::trace));
    EXPECT_TRUE(run(setLogParams, "priority error further 1").succeeded);
    EXPECT_FALSE(logEnabled(LogLevel::warn));
}

TEST_F(LogCommandTest, RefusesAnUnknownPrioritySilently) {
    expectRefused(setLogParams, "priority verbose", "");
    expectRefused(setLogParams, "priority INFO", "");
    EXPECT_TRUE(logEnabled(LogLevel::info));
    EXPECT_FALSE(logEnabled(LogLevel::debug));
}

TEST_F(LogCommandTest, NeedsAPriority) {
    const std::string line = "error setLogParams: bad command, missing or empty 'priority' attr\n";
    expectRefused(setLogParams, "", line);
    expectRefused(setLogParams, "priority", line);
    expectRefused(setLogParams, "Priority trace", line);
}

}  // namespace
}  // namespace vesk
