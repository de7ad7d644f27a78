#include "flow/commands/label_commands.h"

#include <openssl/crypto.h>

#include <stdexcept>
#include <vector>

#include "context/forwarder_context.h"
#include "flow/flow_attributes.h"
#include "log/log.h"
#include "net/endpoint_manager.h"
#include "net/lifecycle/endpoint_release.h"

namespace vesk {

namespace {

/// The attributes of a label command. Wiped at the end of the command, since some of them are keys.
class LabelAttributes {
 public:
    explicit LabelAttributes(TokenQueue& tokens) : attributes_(parseCommandAttrs(tokens)) {}
    ~LabelAttributes() {
        for (auto& [name, value] : attributes_) {
            OPENSSL_cleanse(value.data(), value.size());
        }
    }
    LabelAttributes(const LabelAttributes&) = delete;
    LabelAttributes& operator=(const LabelAttributes&) = delete;

    const AttributeMap& operator*() const { return attributes_; }

 private:
    AttributeMap attributes_;
};

bool refuseSet(std::uint32_t label) {
    logError("setLabelAttrs: bad command for label ", label);
    return false;
}

}  // namespace

bool setLabelAttrs(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context) {
    const LabelAttributes attributes(tokens);
    if (!consumedWhole(tokens, "setLabelAttrs")) {
        return false;
    }
    FlowDesc scratch;
    if (!Vesk_setFlowDescLabelAttrs(*attributes, scratch) || scratch.label == 0) {
        return refuseSet(scratch.label);
    }
    std::vector<std::string> members;
    for (const auto& [name, value] : *attributes) {
        members.push_back(name);
    }
    try {
        releaseEndpoints(context->endpointManager->setLabel(scratch.label, scratch, members),
                         context);
    } catch (const std::invalid_argument&) {
        // The command gave half of an address, which does not form a usable address with the
        // stored half.
        return refuseSet(scratch.label);
    }
    return true;
}

bool deleteLabel(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context) {
    const LabelAttributes attributes(tokens);
    if (!consumedWhole(tokens, "deleteLabel")) {
        return false;
    }
    FlowDesc scratch;
    if (!Vesk_setFlowDescLabelAttrs(*attributes, scratch) || scratch.label == 0) {
        // Kept: unlike the line of "set", this one lacks the routine's name.
        logError("label ", scratch.label);
        return false;
    }
    releaseEndpoints(context->endpointManager->removeLabel(scratch.label), context);
    return true;
}

}  // namespace vesk
