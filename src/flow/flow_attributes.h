// The table of the attributes of a flow. Each row has the name, how the text is parsed, and how the
// value is merged into a record. Used by "set" and "del" on the main thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <variant>

#include "base/command_line.h"
#include "flow/flow_desc.h"

namespace vesk {

/// The names of the attributes, as they appear in commands.
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

/// The member of a record that an attribute sets.
using FlowMember =
    std::variant<std::uint32_t*, std::uint16_t*, std::int32_t*, bool*, IPAddrInfo*, HmacInfo*>;

struct FlowAttribute {
    /// Stores the value in the record and returns true, or logs why it is refused and returns
    /// false. If the resolver fails, std::runtime_error is thrown.
    bool (*parse)(std::string_view name, const std::string& value, FlowDesc& scratch);
    /// Merges the attribute from another record; see FlowDesc::update.
    void (*merge)(FlowDesc& to, const FlowDesc& from);
    FlowMember (*member)(FlowDesc& flow);
};

/// The 22 attributes, sorted by name.
const std::map<std::string_view, FlowAttribute>& flowAttributeTable();

/// Parses the attributes in the order of their names and stores them in `scratch`. False, after
/// logging, if "label" is missing or at the first attribute that is refused; values stored before
/// that stay in `scratch`.
bool Vesk_setFlowDescLabelAttrs(const AttributeMap& attributes, FlowDesc& scratch);

/// The member that the named attribute sets. A name of another kind is a programming error: throws
/// std::invalid_argument.
// Kept: part of the interface of flow records; the forwarder itself uses the table's rows.
std::uint32_t& refLabelByName(FlowDesc& flow, std::string_view name);
IPAddrInfo& refAddrInfoByName(FlowDesc& flow, std::string_view name);
HmacInfo& refHmacInfoByName(FlowDesc& flow, std::string_view name);
std::int32_t& refDscpByName(FlowDesc& flow, std::string_view name);

}  // namespace vesk
