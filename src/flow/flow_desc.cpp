#include "flow/flow_desc.h"

#include <algorithm>
#include <array>
#include <span>
#include <stdexcept>

#include "log/log.h"

namespace vesk {

namespace {

template <typename Member>
struct NamedMember {
    std::string_view name;
    Member& (*member)(FlowDesc&);
};

constexpr std::array<NamedMember<std::uint32_t>, 4> labelMembers{
    {{attribute::label, [](FlowDesc& flow) -> auto& {return flow.label;
}  // namespace
}  // namespace vesk
, {attribute::downLabel, [](FlowDesc& flow) -> auto& {return flow.down.label;
}
}
, {attribute::upLabel, [](FlowDesc& flow) -> auto& {return flow.up.label;
}
}
, {attribute::upAuxFlowLabel, [](FlowDesc& flow) -> auto& {return flow.upAuxFlowLabel;
}
}
,
}
}
;

constexpr std::array<NamedMember<IPAddrInfo>, 4> addressMembers{
    {{attribute::downAddrInfo, [](FlowDesc& flow) -> auto& {return flow.down.addrInfo;
}
}
, {attribute::upAddrInfo, [](FlowDesc& flow) -> auto& {return flow.up.addrInfo;
}
}
, {attribute::upSrcAddrInfo, [](FlowDesc& flow) -> auto& {return flow.up.srcAddrInfo;
}
}
, {attribute::upAuxFlowAddrInfo, [](FlowDesc& flow) -> auto& {return flow.upAuxFlowAddrInfo;
}
}
,
}
}
;

constexpr std::array<NamedMember<HmacInfo>, 4> keyMembers{
    {{attribute::downInKey, [](FlowDesc& flow) -> auto& {return flow.down.inHmac;
}
}
, {attribute::downOutKey, [](FlowDesc& flow) -> auto& {return flow.down.outHmac;
}
}
, {attribute::upInKey, [](FlowDesc& flow) -> auto& {return flow.up.inHmac;
}
}
, {attribute::upOutKey, [](FlowDesc& flow) -> auto& {return flow.up.outHmac;
}
}
,
}
}
;

constexpr std::array<NamedMember<HmacInfo>, 4> algorithmMembers{
    {{attribute::downInAlgo, [](FlowDesc& flow) -> auto& {return flow.down.inHmac;
}
}
, {attribute::downOutAlgo, [](FlowDesc& flow) -> auto& {return flow.down.outHmac;
}
}
, {attribute::upInAlgo, [](FlowDesc& flow) -> auto& {return flow.up.inHmac;
}
}
, {attribute::upOutAlgo, [](FlowDesc& flow) -> auto& {return flow.up.outHmac;
}
}
,
}
}
;

constexpr std::array<NamedMember<std::int32_t>, 4> dscpMembers{
    {{attribute::downOutDscpV4, [](FlowDesc& flow) -> auto& {return flow.down.dscpV4;
}
}
, {attribute::downOutDscpV6, [](FlowDesc& flow) -> auto& {return flow.down.dscpV6;
}
}
, {attribute::upOutDscpV4, [](FlowDesc& flow) -> auto& {return flow.up.dscpV4;
}
}
, {attribute::upOutDscpV6, [](FlowDesc& flow) -> auto& {return flow.up.dscpV6;
}
}
,
}
}
;

template <typename Member, std::size_t N>
Member* findMember(const std::array<NamedMember<Member>, N>& members, FlowDesc& flow,
                   std::string_view name) {
    const auto row = std::find_if(members.begin(), members.end(),
                                  [name](const auto& member) { return member.name == name; });
    return row == members.end() ? nullptr : &row->member(flow);
}

template <typename Member>
Member& orThrow(Member* member, const char* routine, std::string_view name) {
    if (member == nullptr) {
        throw std::invalid_argument(std::string(routine) + ": Unknown name: " + std::string(name));
    }
    return *member;
}

/// The member of the same name in a record that is only read.
template <typename Member, std::size_t N>
const Member& source(const std::array<NamedMember<Member>, N>& members, const FlowDesc& flow,
                     std::string_view name) {
    // The accessors hand out references for writing; nothing is written through this one.
    return *findMember(members, const_cast<FlowDesc&>(flow), name);
}

void updateMember(FlowDesc& to, const FlowDesc& from, std::string_view name) {
    if (name == attribute::label) {
        return;
    }
    if (std::uint32_t* const label = findMember(labelMembers, to, name)) {
        *label = source(labelMembers, from, name);
    } else if (IPAddrInfo* const address = findMember(addressMembers, to, name)) {
        *address = mergeAddresses(source(addressMembers, from, name), *address);
    } else if (HmacInfo* const key = findMember(keyMembers, to, name)) {
        key->copyKeyFrom(source(keyMembers, from, name));
    } else if (HmacInfo* const algorithm = findMember(algorithmMembers, to, name)) {
        algorithm->copyAlgorithmFrom(source(algorithmMembers, from, name));
    } else if (std::int32_t* const dscp = findMember(dscpMembers, to, name)) {
        *dscp = source(dscpMembers, from, name);
    } else if (name == attribute::downAuxFlowLabelPrefix) {
        to.downAuxFlowLabelPrefix = from.downAuxFlowLabelPrefix;
    } else if (name == attribute::isMultiplex) {
        to.isMultiplex = from.isMultiplex;
    } else {
        logInfo("update", ": Unhandled FlowDesc update for member: ", name);
    }
}

}  // namespace

void FlowDesc::update(const FlowDesc& from, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        updateMember(*this, from, name);
    }
}

std::uint32_t& refLabelByName(FlowDesc& flow, std::string_view name) {
    return orThrow(findMember(labelMembers, flow, name), "refLabelByName", name);
}

IPAddrInfo& refAddrInfoByName(FlowDesc& flow, std::string_view name) {
    return orThrow(findMember(addressMembers, flow, name), "refAddrInfoByName", name);
}

HmacInfo& refHmacInfoByName(FlowDesc& flow, std::string_view name) {
    HmacInfo* const byKey = findMember(keyMembers, flow, name);
    return orThrow(byKey != nullptr ? byKey : findMember(algorithmMembers, flow, name),
                   "refHmacInfoByName", name);
}

std::int32_t& refDscpByName(FlowDesc& flow, std::string_view name) {
    return orThrow(findMember(dscpMembers, flow, name), "refDscpByName", name);
}

}  // namespace vesk
