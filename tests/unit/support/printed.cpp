#include "support/printed.h"

#include <gtest/gtest.h>

#include "log/log.h"

namespace vesk {

namespace {

/// Restores standard output even when the code under test throws.
class Capture {
 public:
    Capture() { testing::internal::CaptureStdout(); }
    ~Capture() {
        if (!taken_) {
            take();
        }
    }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    std::string take() {
        taken_ = true;
        return testing::internal::GetCapturedStdout();
    }

 private:
    bool taken_ = false;
};

}  // namespace

std::string printedBy(const std::function<void()>& action) {
    Capture capture;
    action();
    return capture.take();
}

AtLogLevel::AtLogLevel(std::string_view name) {
    EXPECT_TRUE(setLogLevelByName(name));
}

AtLogLevel::~AtLogLevel() {
    setLogLevelByName("info");
}

}  // namespace vesk
