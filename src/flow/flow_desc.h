// One flow's record: everything the controlling service says about a label. Values without a lock;
// the label table holds them under the endpoint manager's, each endpoint has a copy of its own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "flow/hmac_info.h"
#include "flow/ip_addr_info.h"

namespace vesk {

/// The DSCP value that means that datagrams are not marked.
inline constexpr std::int32_t noDscp = -1;

/// One side of a flow.
struct FlowDirDesc {
    /// Checks datagrams that arrive from this side.
    HmacInfo inHmac;
    /// Written into datagrams sent towards this side.
    std::uint32_t label = 0;
    /// Signs datagrams sent towards this side.
    HmacInfo outHmac;
    /// Where datagrams towards this side are sent.
    IPAddrInfo addrInfo;
    /// Where they are sent from. No attribute reaches the down side's.
    IPAddrInfo srcAddrInfo;
    std::int32_t dscpV4 = noDscp;
    std::int32_t dscpV6 = noDscp;
};

struct FlowDesc {
    explicit FlowDesc(std::uint32_t flowLabel = 0) : label(flowLabel) {}

    /// Takes over the named members, in list order. The label never changes; of a key and its
    /// algorithm each is taken alone; addresses merge, which may throw (see mergeAddresses). A name
    /// that is no attribute's is logged and passed over.
    void update(const FlowDesc& from, const std::vector<std::string>& names);

    /// 1 for an auxiliary flow, 0 for a main flow. Set by the endpoint manager alone.
    std::uint8_t isAuxFlow = 0;
    bool isMultiplex = false;
    /// 0 means no label.
    std::uint32_t label;
    FlowDirDesc down;
    FlowDirDesc up;
    /// Labels with these high 16 bits are auxiliary flows of this one; 0 means none.
    std::uint16_t downAuxFlowLabelPrefix = 0;
    /// Gives the auxiliary flows' upstream labels their high 16 bits.
    std::uint32_t upAuxFlowLabel = 0;
    IPAddrInfo upAuxFlowAddrInfo;
};

}  // namespace vesk
