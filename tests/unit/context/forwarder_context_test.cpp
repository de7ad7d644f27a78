#include "context/forwarder_context.h"

#include <gtest/gtest.h>

#include <memory>

#include "datapath/wire/layout.h"
#include "net/endpoint_manager.h"

namespace vesk {
namespace {

TEST(ForwarderContextTest, UsesTheFramingVersionItIsGiven) {
    EXPECT_EQ(ForwarderContext(1).framing.version, 1U);
    EXPECT_EQ(ForwarderContext(2).framing.version, 2U);
}

TEST(ForwarderContextTest, LeavesTheSourceToTheKernelByDefault) {
    EXPECT_EQ(ForwarderContext(2).ipv4Source, Ipv4Source::kernel);
    EXPECT_EQ(ForwarderContext(2, Ipv4Source::arrival).ipv4Source, Ipv4Source::arrival);
}

TEST(ForwarderContextTest, StartsWithEmptyTablesOnly) {
    const auto context = std::make_shared<ForwarderContext>(2);
    ASSERT_NE(context->endpointManager, nullptr);
    EXPECT_TRUE(context->endpointManager->endpoints().empty());
    EXPECT_FALSE(context->pollSocket);
    EXPECT_FALSE(context->serverPollSock);
    EXPECT_EQ(context->pollThread, nullptr);
    EXPECT_TRUE(context->receiveWorkers.empty());
    EXPECT_TRUE(context->sendWorkers.empty());
    EXPECT_EQ(context->cleanUpTask, nullptr);
    EXPECT_EQ(context->downstreamEndpoint.load(), nullptr);
    EXPECT_EQ(context->lateralEndpoint.load(), nullptr);
    EXPECT_TRUE(context->downstreamListeners.empty());
    EXPECT_EQ(context.use_count(), 1);
}

}  // namespace
}  // namespace vesk
