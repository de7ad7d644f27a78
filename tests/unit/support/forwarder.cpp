#include "support/forwarder.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ostream>
#include <span>

#include "control/command_line.h"
#include "flow/label_commands.h"
#include "net/endpoint_lifecycle.h"
#include "net/socket_options.h"

namespace vesk {

void ForwarderTest::SetUp() {
    DescriptorCountingTest::SetUp();
    context = std::make_shared<ForwarderContext>(framingVersion_);
    ASSERT_EQ(createPollSocks(context->pollSocket, context->serverPollSock), 0);
}

void ForwarderTest::TearDown() {
    takePollRequests();
    // From here on endpoints close their sockets themselves.
    context.reset();
    DescriptorCountingTest::TearDown();
}

void ForwarderTest::declare(const std::string& text) {
    EXPECT_TRUE(setLabelAttrs(splitCommandLine(text), context)) << text;
}

EndpointPtr ForwarderTest::createEndpoint(std::uint32_t label) {
    return manager().createEndpoint(label, upstreamEndpointDeleter(*context));
}

std::vector<PollCtlMsg> ForwarderTest::takePollRequests() {
    std::vector<PollCtlMsg> requests;
    PollRecord record{};
    while (recv(context->serverPollSock.get(), record.data(), record.size(), MSG_DONTWAIT) ==
           static_cast<ssize_t>(record.size())) {
        requests.push_back(decodePollCtlMsg(record).value());
        if (requests.back().op == EPOLL_CTL_DEL) {
            close(requests.back().fd);
        }
    }
    return requests;
}

void ForwarderTest::blockPollChannel() {
    setNonBlocking(context->pollSocket.get());
    const PollRecord record = encodePollCtlMsg({EPOLL_CTL_MOD, EPOLLIN, -1});
    while (send(context->pollSocket.get(), record.data(), record.size(), 0) != -1) {
    }
}

bool operator==(const PollCtlMsg& left, const PollCtlMsg& right) {
    return left.op == right.op && left.events == right.events && left.fd == right.fd;
}

std::ostream& operator<<(std::ostream& out, const PollCtlMsg& message) {
    return out << "{op " << message.op << ", events " << message.events << ", fd " << message.fd
               << "}";
}

}  // namespace vesk
