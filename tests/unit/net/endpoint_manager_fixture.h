// Only the tables of labels and endpoints. The endpoints close their sockets themselves.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "net/endpoint_manager.h"
#include "net/endpoint_sockets.h"
#include "support/descriptors.h"

namespace vesk {

class EndpointManagerTest : public DescriptorCountingTest {
 protected:
    /// Declares a label with an upstream address and the named members of `change`.
    void declare(std::uint32_t label, FlowDesc scratch = FlowDesc(),
                 std::vector<std::string> members = {}) {
        scratch.up.addrInfo = IPAddrInfo("127.0.0.1", 4500);
        members.emplace_back("up_addrinfo");
        manager->setLabel(label, scratch, members);
    }

    /// Declares a label that owns a prefix.
    void declareOwner(std::uint32_t label, std::uint16_t prefix, std::uint32_t upAuxLabel) {
        FlowDesc scratch;
        scratch.downAuxFlowLabelPrefix = prefix;
        scratch.upAuxFlowLabel = upAuxLabel;
        scratch.up.label = 77;
        declare(label, scratch, {"down_aux_flow_label_prefix", "up_aux_flow_label", "up_label"});
    }

    EndpointPtr create(std::uint32_t label) {
        return manager->createEndpoint(label, closeEndpointSockets);
    }

    /// An endpoint that the tables did not create.
    static EndpointPtr endpointOf(std::uint32_t label, int rdsockfd, int wrsockfd) {
        return std::make_unique<VeskEndpointDescriptor>(label, rdsockfd, wrsockfd, FlowDesc(label),
                                                        [](int, int) {});
    }

    std::vector<std::uint32_t> labels() {
        std::vector<std::uint32_t> result;
        for (const EndpointPtr& endpoint : manager->endpoints()) {
            result.push_back(endpoint->label);
        }
        return result;
    }

    void TearDown() override {
        manager.reset();
        DescriptorCountingTest::TearDown();
    }

    std::unique_ptr<EndpointManager> manager = std::make_unique<EndpointManager>();
};

}  // namespace vesk
