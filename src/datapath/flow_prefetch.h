// Starts to load what a datagram needs of its flow into the processor's cache. With thousands of
// flows the next one is rarely there, and each part would be waited for in turn. Used by the
// receive threads and the workers as soon as they know the flow.
#pragma once

#include "net/endpoint.h"

namespace vesk {

/// What a datagram towards upstream needs.
inline void prefetchTowardsUpstream(const VeskEndpointDescriptor& endpoint) {
    __builtin_prefetch(&endpoint.towardsUpstream, 1);
    __builtin_prefetch(&endpoint.flow.down.inHmac);
    __builtin_prefetch(&endpoint.flow.up.label);
    __builtin_prefetch(&endpoint.flow.up.outHmac.states);
    __builtin_prefetch(&endpoint.flow.up.addrInfo.socketAddress());
    __builtin_prefetch(&endpoint.flow.up.dscpV4);
    __builtin_prefetch(&endpoint.counters.txDg, 1);
    endpoint.route.prefetch();
    endpoint.upstreamLocal.prefetch();
}

/// What a reply needs.
inline void prefetchTowardsDownstream(const VeskEndpointDescriptor& endpoint) {
    __builtin_prefetch(&endpoint.towardsDownstream, 1);
    __builtin_prefetch(&endpoint.flow.up.inHmac.states);
    __builtin_prefetch(&endpoint.flow.down.label);
    __builtin_prefetch(&endpoint.flow.down.outHmac.states);
    __builtin_prefetch(&endpoint.flow.down.dscpV4);
    __builtin_prefetch(&endpoint.counters.rxDg, 1);
    endpoint.route.prefetch();
    endpoint.upstreamLocal.prefetch();
}

}  // namespace vesk
