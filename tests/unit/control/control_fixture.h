// A forwarder whose commands are executed by calling their handlers.
#pragma once

#include <string>

#include "support/forwarder.h"

namespace vesk {

class ControlTest : public ForwarderTest {
 protected:
    /// Ends the threads that the commands have started.
    void TearDown() override;

    /// Runs a command and expects it to fail and to print exactly `line`.
    void expectRefused(Handler handler, const std::string& words, const std::string& line);
};

}  // namespace vesk
