#include "child/log_event_reader.h"

#include <gtest/gtest.h>

#include "child/flow_sockets.h"

namespace vesk::controller {
namespace {

TEST(LogEventsTest, FindsCountedLines) {
    EXPECT_EQ(eventOf(classify("downstreamPacketReceivedFailed HMAC Check!")),
              LogEvent::hmacFailure);
    EXPECT_EQ(eventOf(classify("info Created upstream endpoint: label 0x10001/65537 sockfds 7 8")),
              LogEvent::endpointCreated);
    EXPECT_EQ(
        eventOf(classify("info Created multiplexed upstream endpoint: label 0x1/1 sockfds 7 8")),
        LogEvent::endpointCreated);
    EXPECT_EQ(eventOf(classify("error DOWN_TO_UP_SEND: network error on upstream endpoint of label "
                               "0x5/5, errno 111 (Connection refused). Endpoint Deleted")),
              LogEvent::endpointDeletedByError);
}

TEST(LogEventsTest, IgnoresOtherLines) {
    constexpr const char* noRoute =
        "warn DOWN_TO_UP_SEND: network error on upstream endpoint of label 0x5/5, errno 113 "
        "(No route to host).";
    for (const char* line :
         {"", "info ", "info downstreamPacketReceivedFailed HMAC Check!",
          "debug Got message: downstreamPacketReceivedFailed HMAC Check!",
          "downstreamPacketReceivedFailed HMAC Check! ",
          "debug Created upstream endpoint: label 0x10001/65537 sockfds 7 8",
          "debug Failed to create upstream endpoint with label 5", noRoute,
          "error Unrecognised command ' Endpoint Deleted'", "error Endpoint Deleted"}) {
        EXPECT_FALSE(eventOf(classify(line))) << line;
    }
}

TEST(FlowSocketsTest, KnowsTheDescriptorsOfALabel) {
    FlowDescriptors flows;
    noteCreatedEndpoint("Created upstream endpoint: label 0x10001/65537 sockfds 7 8", flows);
    noteCreatedEndpoint(
        "Created multiplexed upstream endpoint: label 0xffffffff/4294967295 "
        "sockfds 9 8",
        flows);
    EXPECT_EQ(flows, (FlowDescriptors{{7, 0x10001}, {8, 0xffffffff}, {9, 0xffffffff}}));
}

TEST(FlowSocketsTest, IgnoresADamagedLine) {
    FlowDescriptors flows{{7, 1}};
    for (const char* line : {"", "Created upstream endpoint: label 0x",
                             "Created upstream endpoint: label 0x10001/65537 sockfds 7",
                             "Created upstream endpoint: label 0x10001/65537 sockets 7 8",
                             "Created upstream endpoint: label 0x100000001/1 sockfds 7 8",
                             "Created upstream endpoint: label 0x1/1 sockfds 7 x"}) {
        noteCreatedEndpoint(line, flows);
        EXPECT_EQ(flows, (FlowDescriptors{{7, 1}})) << line;
    }
}

}  // namespace
}  // namespace vesk::controller
