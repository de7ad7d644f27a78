// One flow's record: everything the controlling service says about a label. Values without a lock;
// the label table holds them under the endpoint manager's, each endpoint has a copy of its own.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "flow/hmac_info.h"
#include "flow/ip_addr_info.h"

namespace vesk {

/// The names of the attributes, as commands give them.
namespace attribute {
inline constexpr std::string_view label = "label";
inline constexpr std::string_view isMultiplex = "is_multiplex";
inline constexpr std::string_view downInKey = "down_in_key";
inline constexpr std::string_view downInAlgo = "down_in_algo";
inline constexpr std::string_view downOutKey = "down_out_key";
inline constexpr std::string_view downOutAlgo = "down_out_algo";
inline constexpr std::string_view downLabel = "down_label";
inline constexpr std::string_view downAddrInfo = "down_addrinfo";
inline constexpr std::string_view downOutDscpV4 = "down_out_dscp_v4";
inline constexpr std::string_view downOutDscpV6 = "down_out_dscp_v6";
inline constexpr std::string_view downAuxFlowLabelPrefix = "down_aux_flow_label_prefix";
inline constexpr std::string_view upInKey = "up_in_key";
inline constexpr std::string_view upInAlgo = "up_in_algo";
inline constexpr std::string_view upOutKey = "up_out_key";
inline constexpr std::string_view upOutAlgo = "up_out_algo";
inline constexpr std::string_view upLabel = "up_label";
inline constexpr std::string_view upAddrInfo = "up_addrinfo";
inline constexpr std::string_view upSrcAddrInfo = "up_src_addrinfo";
inline constexpr std::string_view upOutDscpV4 = "up_out_dscp_v4";
inline constexpr std::string_view upOutDscpV6 = "up_out_dscp_v6";
inline constexpr std::string_view upAuxFlowLabel = "up_aux_flow_label";
inline constexpr std::string_view upAuxFlowAddrInfo = "up_aux_flow_addrinfo";
}  // namespace attribute

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

/// The member that an attribute's name stands for. A name of any other kind is a fault of the
/// program and throws std::invalid_argument.
std::uint32_t& refLabelByName(FlowDesc& flow, std::string_view name);
IPAddrInfo& refAddrInfoByName(FlowDesc& flow, std::string_view name);
HmacInfo& refHmacInfoByName(FlowDesc& flow, std::string_view name);
std::int32_t& refDscpByName(FlowDesc& flow, std::string_view name);

}  // namespace vesk
