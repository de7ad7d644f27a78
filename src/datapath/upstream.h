// The way back: a reply from upstream is checked, relabelled, signed and sent to the flow's last
// sender, or to the instance that forwarded that sender's datagram.
#pragma once

#include <cstdint>

namespace vesk {

struct ForwarderContext;

/// Handles at most one datagram on an upstream read socket. Called by the receive workers. Both
/// `keep` and the result (1 or 0) say whether to call again for the same socket; when not, the
/// socket is armed again or gone.
int upstreamSocketRecv(int socket, bool& keep, std::uint32_t workerParameter,
                       ForwarderContext& context);

/// The counterpart for writing. No socket is watched for that.
int upstreamSocketSend(int socket, bool& keep, std::uint32_t workerParameter,
                       ForwarderContext& context);

}  // namespace vesk
