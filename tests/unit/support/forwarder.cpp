#include "support/forwarder.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <ostream>
#include <span>

#include "flow/commands/label_commands.h"
#include "net/lifecycle/endpoint_lifecycle.h"
#include "support/printed.h"

namespace vesk {

void ForwarderTest::SetUp() {
    DescriptorCountingTest::SetUp();
    context = std::make_shared<ForwarderContext>(framingVersion_, ipv4Source_);
    ASSERT_EQ(createPollSocks(context->pollSocket, context->serverPollSock), 0);
}

void ForwarderTest::TearDown() {
    takePollRequests();
    // From now on endpoints close their sockets themselves.
    context.reset();
    DescriptorCountingTest::TearDown();
}

ForwarderTest::Outcome ForwarderTest::run(Handler handler, const std::string& words) {
    Outcome outcome;
    // The number parsers refuse the largest number while errno is ERANGE.
    errno = 0;
    outcome.printed =
        printedBy([&] { outcome.succeeded = handler(splitCommandLine(words), context); });
    return outcome;
}

void ForwarderTest::declare(const std::string& text) {
    EXPECT_TRUE(setLabelAttrs(splitCommandLine(text), context)) << text;
}

EndpointPtr ForwarderTest::createEndpoint(std::uint32_t label) {
    return manager().createEndpoint(label, upstreamEndpointDeleter(*context));
}

std::vector<PollCtlMsg> ForwarderTest::takePollRequests() {
    std::vector<PollCtlMsg> requests;
    const auto take = [&requests](const PollCtlMsg& message) {
        requests.push_back(message);
        if (message.op == EPOLL_CTL_DEL) {
            close(message.fd);
        }
    };
    PollDatagram datagram{};
    ssize_t length = 0;
    while ((length = recv(context->serverPollSock.get(), datagram.data(), datagram.size(),
                          MSG_DONTWAIT)) > 0) {
        EXPECT_TRUE(
            forEachRecord(std::span(datagram).first(static_cast<std::size_t>(length)), take));
    }
    return requests;
}

bool operator==(const PollCtlMsg& left, const PollCtlMsg& right) {
    return left.op == right.op && left.events == right.events && left.fd == right.fd;
}

std::ostream& operator<<(std::ostream& out, const PollCtlMsg& message) {
    return out << "{op " << message.op << ", events " << message.events << ", fd " << message.fd
               << "}";
}

}  // namespace vesk
