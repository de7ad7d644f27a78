// The record of a flow: all that the controlling service declares for a label. A value without a
// lock: the endpoint manager's lock guards the records of all labels, and each endpoint has its own
// copy.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "flow/hmac_info.h"
#include "flow/ip_addr_info.h"

namespace vesk {

/// Used in place of a DSCP value: datagrams are not marked.
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
    /// The source address of those datagrams. No attribute sets that of the down side.
    IPAddrInfo srcAddrInfo;
    std::int32_t dscpV4 = noDscp;
    std::int32_t dscpV6 = noDscp;
};

struct FlowDesc {
    explicit FlowDesc(std::uint32_t flowLabel = 0) : label(flowLabel) {}

    /// Merges the named attributes from another record, in list order. The label never changes. A
    /// key and its algorithm are separate attributes. Merging an address may throw (see
    /// mergeAddresses). An unknown name is logged and skipped.
    void update(const FlowDesc& from, const std::vector<std::string>& names);

    /// 1 for an auxiliary flow, 0 for a main flow. Set only by the endpoint manager.
    std::uint8_t isAuxFlow = 0;
    /// Whether the sockets may share their address with those of other flows. Replies of those
    /// flows may then arrive on them.
    bool isMultiplex = false;
    /// In host byte order; 0 means no label.
    std::uint32_t label;
    FlowDirDesc down;
    FlowDirDesc up;
    /// Labels with these high 16 bits are auxiliary flows of this one; 0 means none.
    std::uint16_t downAuxFlowLabelPrefix = 0;
    /// Its high 16 bits are used for the upstream labels of the auxiliary flows. 0: there are none.
    std::uint32_t upAuxFlowLabel = 0;
    IPAddrInfo upAuxFlowAddrInfo;
};

}  // namespace vesk
