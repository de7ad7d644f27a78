// A forwarder whose commands are executed by calling their handlers.
#pragma once

#include <pthread.h>

#include <functional>
#include <string>

#include "support/forwarder.h"

namespace vesk {

class ControlTest : public ForwarderTest {
 protected:
    /// Ends the threads that the commands have started.
    void TearDown() override;

    /// Runs a command and expects it to fail and to print exactly `line`.
    void expectRefused(Handler handler, const std::string& words, const std::string& line);

    /// Sends a datagram that the endpoint refuses, and expects it to be counted.
    static void expectReceives(VeskEndpointDescriptor& endpoint);

    /// The outcome of a command while no thread can be created.
    static Outcome withoutThreads(const std::function<Outcome()>& command);

    /// A thread as the log names it.
    static std::string logged(pthread_t thread);
};

}  // namespace vesk
