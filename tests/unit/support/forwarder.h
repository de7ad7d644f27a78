// A forwarder without threads: the context, the tables, and a poll channel that the test reads
// instead of the poll loop.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/command_line.h"
#include "context/forwarder_context.h"
#include "net/endpoint_manager.h"
#include "poll/poll_channel.h"
#include "support/descriptors.h"

namespace vesk {

class ForwarderTest : public DescriptorCountingTest {
 protected:
    explicit ForwarderTest(int framingVersion = 2, Ipv4Source ipv4Source = Ipv4Source::kernel)
        : framingVersion_(framingVersion), ipv4Source_(ipv4Source) {}

    void SetUp() override;
    void TearDown() override;

    EndpointManager& manager() { return *context->endpointManager; }

    /// The result of a command.
    struct Outcome {
        bool succeeded = false;
        std::string printed;
    };
    using Handler = bool (*)(TokenQueue, const std::shared_ptr<ForwarderContext>&);
    Outcome run(Handler handler, const std::string& words);

    /// Executes "set" with the words of `text` and fails the test if it is refused.
    void declare(const std::string& text);

    /// Creates the label's endpoint as a datagram would, but does not set up its sockets.
    EndpointPtr createEndpoint(std::uint32_t label);

    /// The requests to the poll loop since the last call. Deletions are executed.
    std::vector<PollCtlMsg> takePollRequests();

    std::shared_ptr<ForwarderContext> context;

 private:
    const int framingVersion_;
    const Ipv4Source ipv4Source_;
};

bool operator==(const PollCtlMsg& left, const PollCtlMsg& right);
std::ostream& operator<<(std::ostream& out, const PollCtlMsg& message);

}  // namespace vesk
