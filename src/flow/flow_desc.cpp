#include "flow/flow_desc.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "log/log.h"

namespace vesk {

namespace {

template <typename Member>
struct NamedMember {
    std::string_view name;
    Member* (*member)(FlowDesc&);
};

template <typename Member>
using MemberTable = std::array<NamedMember<Member>, 4>;

constexpr MemberTable<std::uint32_t> labelMembers{{
    {attribute::label, [](FlowDesc& flow) { return &flow.label; }},
    {attribute::downLabel, [](FlowDesc& flow) { return &flow.down.label; }},
    {attribute::upLabel, [](FlowDesc& flow) { return &flow.up.label; }},
    {attribute::upAuxFlowLabel, [](FlowDesc& flow) { return &flow.upAuxFlowLabel; }},
}};

constexpr MemberTable<IPAddrInfo> addressMembers{{
    {attribute::downAddrInfo, [](FlowDesc& flow) { return &flow.down.addrInfo; }},
    {attribute::upAddrInfo, [](FlowDesc& flow) { return &flow.up.addrInfo; }},
    {attribute::upSrcAddrInfo, [](FlowDesc& flow) { return &flow.up.srcAddrInfo; }},
    {attribute::upAuxFlowAddrInfo, [](FlowDesc& flow) { return &flow.upAuxFlowAddrInfo; }},
}};

constexpr MemberTable<HmacInfo> keyMembers{{
    {attribute::downInKey, [](FlowDesc& flow) { return &flow.down.inHmac; }},
    {attribute::downOutKey, [](FlowDesc& flow) { return &flow.down.outHmac; }},
    {attribute::upInKey, [](FlowDesc& flow) { return &flow.up.inHmac; }},
    {attribute::upOutKey, [](FlowDesc& flow) { return &flow.up.outHmac; }},
}};

constexpr MemberTable<HmacInfo> algorithmMembers{{
    {attribute::downInAlgo, [](FlowDesc& flow) { return &flow.down.inHmac; }},
    {attribute::downOutAlgo, [](FlowDesc& flow) { return &flow.down.outHmac; }},
    {attribute::upInAlgo, [](FlowDesc& flow) { return &flow.up.inHmac; }},
    {attribute::upOutAlgo, [](FlowDesc& flow) { return &flow.up.outHmac; }},
}};

constexpr MemberTable<std::int32_t> dscpMembers{{
    {attribute::downOutDscpV4, [](FlowDesc& flow) { return &flow.down.dscpV4; }},
    {attribute::downOutDscpV6, [](FlowDesc& flow) { return &flow.down.dscpV6; }},
    {attribute::upOutDscpV4, [](FlowDesc& flow) { return &flow.up.dscpV4; }},
    {attribute::upOutDscpV6, [](FlowDesc& flow) { return &flow.up.dscpV6; }},
}};

template <typename Member>
Member* findMember(const MemberTable<Member>& members, FlowDesc& flow, std::string_view name) {
    const auto row = std::find_if(members.begin(), members.end(),
                                  [name](const auto& member) { return member.name == name; });
    return row == members.end() ? nullptr : row->member(flow);
}

template <typename Member>
Member& orThrow(Member* member, const char* complaint, std::string_view name) {
    if (member == nullptr) {
        throw std::invalid_argument(complaint + std::string(name));
    }
    return *member;
}

/// The member of the same name in a record that is only read.
template <typename Member>
const Member& source(const MemberTable<Member>& members, const FlowDesc& flow,
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
        logInfo("update: Unhandled FlowDesc update for member: ", name);
    }
}

}  // namespace

void FlowDesc::update(const FlowDesc& from, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        updateMember(*this, from, name);
    }
}

std::uint32_t& refLabelByName(FlowDesc& flow, std::string_view name) {
    return orThrow(findMember(labelMembers, flow, name), "refLabelByName: Unknown name: ", name);
}

IPAddrInfo& refAddrInfoByName(FlowDesc& flow, std::string_view name) {
    return orThrow(findMember(addressMembers, flow, name),
                   "refAddrInfoByName: Unknown name: ", name);
}

HmacInfo& refHmacInfoByName(FlowDesc& flow, std::string_view name) {
    HmacInfo* const byKey = findMember(keyMembers, flow, name);
    return orThrow(byKey != nullptr ? byKey : findMember(algorithmMembers, flow, name),
                   "refHmacInfoByName: Unknown name: ", name);
}

std::int32_t& refDscpByName(FlowDesc& flow, std::string_view name) {
    return orThrow(findMember(dscpMembers, flow, name), "refDscpByName: Unknown name: ", name);
}

}  // namespace vesk
