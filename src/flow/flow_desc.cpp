#include "flow/flow_desc.h"

#include "flow/flow_attributes.h"
#include "log/log.h"

namespace vesk {

void FlowDesc::update(const FlowDesc& from, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        const auto found = flowAttributeTable().find(name);
        if (found == flowAttributeTable().end()) {
            logInfo("update: Unhandled FlowDesc update for member: ", name);
        } else {
            found->second.merge(*this, from);
        }
    }
}

}  // namespace vesk
