// A forwarder whose commands are carried out by calling their handlers.
#pragma once

#include <string>

#include "support/forwarder.h"

namespace vesk {

class ControlTest : public ForwarderTest {
 protected:
    /// Ends what the commands have started.
    void TearDown() override;

    /// Runs a command that has to fail with this line and nothing else.
    void expectRefused(Handler handler, const std::string& words, const std::string& line);
};

}  // namespace vesk
