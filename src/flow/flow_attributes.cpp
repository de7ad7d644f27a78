#include "flow/flow_attributes.h"

#include <stdexcept>

#include "flow/attribute_values.h"
#include "log/log.h"

namespace vesk {

namespace {

// The kinds of attributes: how a value is parsed from text, and how it is merged into a record.

struct Key {
    static constexpr auto parse = Vesk_validateHmacKeyString;
    static void merge(HmacInfo& to, const HmacInfo& from) { to.copyKeyFrom(from); }
};

struct Algorithm {
    static constexpr auto parse = Vesk_validateHmacAlgoString;
    static void merge(HmacInfo& to, const HmacInfo& from) { to.copyAlgorithmFrom(from); }
};

struct Address {
    static constexpr auto parse = Vesk_validateAddrInfoString;
    static void merge(IPAddrInfo& to, const IPAddrInfo& from) { to = mergeAddresses(from, to); }
};

struct Dscp {
    static constexpr auto parse = Vesk_validateDscpString;
    static void merge(std::int32_t& to, std::int32_t from) { to = from; }
};

struct Flag {
    static constexpr auto parse = Vesk_validateIsMultiplexString;
    static void merge(bool& to, bool from) { to = from; }
};

/// A label or a prefix of labels.
struct Label {
    template <typename Number>
    static bool parse(std::string_view name, const std::string& value, Number& label) {
        return validateLabelLikeString(name, value, label);
    }
    template <typename Number>
    static void merge(Number& to, Number from) {
        to = from;
    }
};

/// The label that identifies a record. It never changes.
struct OwnLabel {
    static bool parse(std::string_view name, const std::string& value, std::uint32_t& label) {
        return validateLabelLikeString(name, value, label);
    }
    static void merge(std::uint32_t& /*to*/, std::uint32_t /*from*/) {}
};

/// The row of an attribute of this kind; `Access` finds its member in a record.
template <typename Kind, typename Access>
FlowAttribute row(Access /*member*/) {
    return {[](std::string_view name, const std::string& value, FlowDesc& scratch) {
                return Kind::parse(name, value, Access()(scratch));
            },
            [](FlowDesc& to, const FlowDesc& from) { Kind::merge(Access()(to), Access()(from)); },
            [](FlowDesc& flow) -> FlowMember { return &Access()(flow); }};
}

const std::map<std::string_view, FlowAttribute> table{
    {attribute::downInKey, row<Key>([](auto& it) -> auto& { return it.down.inHmac; })},
    {attribute::downOutKey, row<Key>([](auto& it) -> auto& { return it.down.outHmac; })},
    {attribute::upInKey, row<Key>([](auto& it) -> auto& { return it.up.inHmac; })},
    {attribute::upOutKey, row<Key>([](auto& it) -> auto& { return it.up.outHmac; })},
    {attribute::downInAlgo, row<Algorithm>([](auto& it) -> auto& { return it.down.inHmac; })},
    {attribute::downOutAlgo, row<Algorithm>([](auto& it) -> auto& { return it.down.outHmac; })},
    {attribute::upInAlgo, row<Algorithm>([](auto& it) -> auto& { return it.up.inHmac; })},
    {attribute::upOutAlgo, row<Algorithm>([](auto& it) -> auto& { return it.up.outHmac; })},
    {attribute::downAddrInfo, row<Address>([](auto& it) -> auto& { return it.down.addrInfo; })},
    {attribute::upAddrInfo, row<Address>([](auto& it) -> auto& { return it.up.addrInfo; })},
    {attribute::upSrcAddrInfo, row<Address>([](auto& it) -> auto& { return it.up.srcAddrInfo; })},
    {attribute::upAuxFlowAddrInfo,
     row<Address>([](auto& it) -> auto& { return it.upAuxFlowAddrInfo; })},
    {attribute::downOutDscpV4, row<Dscp>([](auto& it) -> auto& { return it.down.dscpV4; })},
    {attribute::downOutDscpV6, row<Dscp>([](auto& it) -> auto& { return it.down.dscpV6; })},
    {attribute::upOutDscpV4, row<Dscp>([](auto& it) -> auto& { return it.up.dscpV4; })},
    {attribute::upOutDscpV6, row<Dscp>([](auto& it) -> auto& { return it.up.dscpV6; })},
    {attribute::label, row<OwnLabel>([](auto& it) -> auto& { return it.label; })},
    {attribute::downLabel, row<Label>([](auto& it) -> auto& { return it.down.label; })},
    {attribute::upLabel, row<Label>([](auto& it) -> auto& { return it.up.label; })},
    {attribute::upAuxFlowLabel, row<Label>([](auto& it) -> auto& { return it.upAuxFlowLabel; })},
    {attribute::downAuxFlowLabelPrefix,
     row<Label>([](auto& it) -> auto& { return it.downAuxFlowLabelPrefix; })},
    {attribute::isMultiplex, row<Flag>([](auto& it) -> auto& { return it.isMultiplex; })},
};

template <typename Member>
Member& memberByName(FlowDesc& flow, std::string_view name, const char* complaint) {
    const auto found = table.find(name);
    if (found != table.end()) {
        const FlowMember member = found->second.member(flow);
        if (Member* const* const wanted = std::get_if<Member*>(&member)) {
            return **wanted;
        }
    }
    throw std::invalid_argument(complaint + std::string(name));
}

}  // namespace

const std::map<std::string_view, FlowAttribute>& flowAttributeTable() {
    return table;
}

bool Vesk_setFlowDescLabelAttrs(const AttributeMap& attributes, FlowDesc& scratch) {
    constexpr std::string_view prefix = "Vesk_setFlowDescLabelAttrs: Invalid Attr, ";
    if (attributes.find(attribute::label) == attributes.end()) {
        logError(prefix, " 'label' field is missing");
        return false;
    }
    for (const auto& [name, value] : attributes) {
        const auto found = table.find(name);
        if (found == table.end()) {
            logError(prefix, " name '", name, "' unrecognized");
            return false;
        }
        if (!found->second.parse(name, value, scratch)) {
            return false;
        }
    }
    return true;
}

std::uint32_t& refLabelByName(FlowDesc& flow, std::string_view name) {
    return memberByName<std::uint32_t>(flow, name, "refLabelByName: Unknown name: ");
}

IPAddrInfo& refAddrInfoByName(FlowDesc& flow, std::string_view name) {
    return memberByName<IPAddrInfo>(flow, name, "refAddrInfoByName: Unknown name: ");
}

HmacInfo& refHmacInfoByName(FlowDesc& flow, std::string_view name) {
    return memberByName<HmacInfo>(flow, name, "refHmacInfoByName: Unknown name: ");
}

std::int32_t& refDscpByName(FlowDesc& flow, std::string_view name) {
    return memberByName<std::int32_t>(flow, name, "refDscpByName: Unknown name: ");
}

}  // namespace vesk
