#include "control/control_fixture.h"

#include <ios>
#include <sstream>
#include <utility>

#include "control/forwarder_commands.h"
#include "control/listening_endpoint.h"
#include "support/printed.h"
#include "support/thread_state.h"
#include "support/udp_socket.h"

namespace vesk {

void ControlTest::TearDown() {
    printedBy([this] { stopForwarder(*context); });
    context->lateral.thread.stop();
    context->lateralEndpoint.withdraw();
    closeListeningEndpoint(std::move(context->lateral.endpoint), *context);
    ForwarderTest::TearDown();
}

void ControlTest::expectRefused(Handler handler, const std::string& words,
                                const std::string& line) {
    const Outcome outcome = run(handler, words);
    EXPECT_FALSE(outcome.succeeded) << words;
    EXPECT_EQ(outcome.printed, line) << words;
}

void ControlTest::expectReceives(VeskEndpointDescriptor& endpoint) {
    UdpSocket sender;
    sender.send(Bytes(1), endpoint.localAddress.socketAddress());
    EXPECT_TRUE(eventually([&] { return endpoint.counters.rxDgError.value() == 1; }));
}

ControlTest::Outcome ControlTest::withoutThreads(const std::function<Outcome()>& command) {
    const ThreadShortage shortage;
    return command();
}

std::string ControlTest::logged(pthread_t thread) {
    std::ostringstream text;
    text << std::hex << thread;
    return text.str();
}

}  // namespace vesk
