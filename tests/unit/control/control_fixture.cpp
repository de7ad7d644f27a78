#include "control/control_fixture.h"

#include <utility>

#include "control/forwarder_commands.h"
#include "control/listening_endpoint.h"
#include "support/printed.h"

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

}  // namespace vesk
