#include "flow/label_commands.h"

#include <optional>
#include <string_view>
#include <vector>

#include "app/forwarder_context.h"
#include "flow/flow_attributes.h"
#include "log/log.h"
#include "net/endpoint_manager.h"

namespace vesk {

namespace {

/// The attributes of a label command, or nothing, after logging, where a value is missing.
std::optional<AttributeMap> parseLabelCommand(TokenQueue& tokens, std::string_view prefix) {
    AttributeMap attributes = parseCommandAttrs(tokens);
    if (const std::string leftover = describeLeftover(tokens); !leftover.empty()) {
        logError(prefix, leftover);
        return std::nullopt;
    }
    return attributes;
}

}  // namespace

bool setLabelAttrs(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context) {
    const std::optional<AttributeMap> attributes =
        parseLabelCommand(tokens, "setLabelAttrs: bad command, ");
    if (!attributes) {
        return false;
    }
    FlowDesc scratch;
    if (!Vesk_setFlowDescLabelAttrs(*attributes, scratch) || scratch.label == 0) {
        logError("setLabelAttrs: bad command for label ", scratch.label);
        return false;
    }
    std::vector<std::string> members;
    for (const auto& [name, value] : *attributes) {
        members.push_back(name);
    }
    context->endpointManager->setLabel(scratch.label, scratch, members);
    return true;
}

bool deleteLabel(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context) {
    const std::optional<AttributeMap> attributes =
        parseLabelCommand(tokens, "deleteLabel: bad command, ");
    if (!attributes) {
        return false;
    }
    FlowDesc scratch;
    if (!Vesk_setFlowDescLabelAttrs(*attributes, scratch) || scratch.label == 0) {
        // Kept: the bare form, without the routine's name that "set" puts in front.
        logError("label ", scratch.label);
        return false;
    }
    context->endpointManager->removeLabel(scratch.label);
    return true;
}

}  // namespace vesk
