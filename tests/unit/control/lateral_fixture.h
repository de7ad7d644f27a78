// A forwarder to which the commands of the lateral stream are sent.
#pragma once

#include <cstdint>
#include <string>

#include "control/control_fixture.h"
#include "control/lateral_commands.h"

namespace vesk {

class LateralCommandsTest : public ControlTest {
 protected:
    Outcome addPeer(const std::string& words) { return run(addLateralPeer, words); }
    Outcome startLateral(const std::string& words) { return run(startLateralStream, words); }
    Outcome startOn(std::uint16_t port) {
        return startLateral("addr 127.0.0.1 port " + std::to_string(port) + " idx 1 max_qels 3");
    }

    std::string peerHost(std::uint32_t index) {
        const auto address = context->lateral.peers.find(index, 1);
        return address ? IPAddrInfo(address->get(), address->length).host() : "";
    }
};

}  // namespace vesk
