// A forwarder whose commands are carried out by calling their handlers.
#pragma once

#include <string>

#include "control/command_line.h"
#include "support/forwarder.h"

namespace vesk {

class ControlTest : public ForwarderTest {
 protected:
    struct Outcome {
        bool succeeded = false;
        std::string printed;
    };
    using Handler = bool (*)(TokenQueue, const std::shared_ptr<ForwarderContext>&);

    /// Ends what the commands have started.
    void TearDown() override;

    Outcome run(Handler handler, const std::string& words);
    /// Runs a command that has to fail with this line and nothing else.
    void expectRefused(Handler handler, const std::string& words, const std::string& line);
};

}  // namespace vesk
