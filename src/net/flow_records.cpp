#include "net/flow_records.h"

#include <utility>

#include "log/log.h"

namespace vesk {

namespace {

constexpr std::uint16_t prefixOf(std::uint32_t label) {
    return static_cast<std::uint16_t>(label >> 16);
}

/// The record of an auxiliary flow, made from that of the prefix's owner.
FlowDesc makeAuxFlow(const FlowDesc& base, std::uint32_t label) {
    FlowDesc flow = base;
    flow.isAuxFlow = 1;
    flow.label = label;
    flow.up.label = (base.upAuxFlowLabel & 0xFFFF0000U) | (label & 0xFFFFU);
    if (base.upAuxFlowAddrInfo.resolved()) {
        flow.up.addrInfo = base.upAuxFlowAddrInfo;
    }
    return flow;
}

}  // namespace

const FlowDesc* FlowRecords::find(std::uint32_t label) const {
    const auto found = records_.find(label);
    return found == records_.end() ? nullptr : &found->second;
}

const FlowDesc* FlowRecords::findOrMake(std::uint32_t label) {
    if (const FlowDesc* const declared = find(label)) {
        return declared;
    }
    const auto prefix = prefixes_.find(prefixOf(label));
    if (prefix == prefixes_.end()) {
        return nullptr;
    }
    const FlowDesc* const base = find(prefix->second.baseLabel);
    if (base == nullptr) {
        return nullptr;
    }
    prefix->second.auxLabels.insert(label);
    return &records_.emplace(label, makeAuxFlow(*base, label)).first->second;
}

bool FlowRecords::knows(std::uint32_t label) const {
    return records_.contains(label) || prefixes_.contains(prefixOf(label));
}

bool FlowRecords::isAux(std::uint32_t label) const {
    const FlowDesc* const flow = find(label);
    return flow != nullptr && flow->isAuxFlow != 0;
}

void FlowRecords::put(FlowDesc flow) {
    const std::uint32_t label = flow.label;
    registerPrefix(records_.insert_or_assign(label, std::move(flow)).first->second);
}

void FlowRecords::registerPrefix(const FlowDesc& flow) {
    if (flow.upAuxFlowLabel == 0 || flow.downAuxFlowLabelPrefix == 0) {
        return;
    }
    if (!prefixes_.try_emplace(flow.downAuxFlowLabelPrefix, AuxPrefixEntry{flow.label, {}, {}})
             .second) {
        logWarn("setLabelAttrs: Aux. flow label prefix added more than once; ignoring; label ",
                flow.label, "; label prefix ", flow.downAuxFlowLabelPrefix);
    }
}

void FlowRecords::keepAux(std::uint32_t label) {
    const auto prefix = prefixes_.find(prefixOf(label));
    if (isAux(label) && prefix != prefixes_.end()) {
        prefix->second.lastingLabels.insert(label);
    }
}

bool FlowRecords::isKept(std::uint32_t label) const {
    const auto prefix = prefixes_.find(prefixOf(label));
    return prefix != prefixes_.end() && prefix->second.lastingLabels.contains(label);
}

void FlowRecords::takeAux(std::uint32_t label, Taken& taken) {
    if (isAux(label)) {
        forgetAuxLabel(label);
        taken.push_back(records_.extract(label));
    }
}

AuxPrefixEntry FlowRecords::take(std::uint32_t label, Taken& taken) {
    const auto record = records_.find(label);
    if (record == records_.end()) {
        return {};
    }
    if (record->second.isAuxFlow != 0) {
        forgetAuxLabel(label);
    }
    AuxPrefixEntry prefix = takePrefix(record->second);
    taken.push_back(records_.extract(record));
    for (const std::uint32_t auxLabel : prefix.auxLabels) {
        taken.push_back(records_.extract(auxLabel));
    }
    return prefix;
}

AuxPrefixEntry FlowRecords::takePrefix(const FlowDesc& owner) {
    const auto prefix = prefixes_.find(owner.downAuxFlowLabelPrefix);
    if (prefix == prefixes_.end() || prefix->second.baseLabel != owner.label) {
        return {};
    }
    AuxPrefixEntry taken = std::move(prefix->second);
    prefixes_.erase(prefix);
    return taken;
}

void FlowRecords::forgetAuxLabel(std::uint32_t label) {
    const auto prefix = prefixes_.find(prefixOf(label));
    if (prefix != prefixes_.end()) {
        prefix->second.auxLabels.erase(label);
        prefix->second.lastingLabels.erase(label);
    }
}

}  // namespace vesk
