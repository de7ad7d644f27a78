// "set" and "del" with all their attributes and the real tables. The input is a list of command
// lines; a line that begins with neither word is treated as a "set".
#include <cerrno>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "base/command_line.h"
#include "context/forwarder_context.h"
#include "flow/commands/label_commands.h"
#include "net/endpoint_manager.h"
#include "net/endpoint_sockets.h"
#include "support/require.h"
#include "support/set_reference.h"

namespace vesk::fuzz {
namespace {

using Context = std::shared_ptr<ForwarderContext>;

/// Whether the command was accepted; empty if the resolver failed, which the handler reports as an
/// exception.
std::optional<bool> carryOut(bool isDel, const TokenQueue& words, const Context& context) {
    // As in a process without earlier failures: the parsers treat an old range error in errno as
    // their own.
    errno = 0;
    try {
        return isDel ? deleteLabel(words, context) : setLabelAttrs(words, context);
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
}

/// A label that was set has a record with the values of the command.
void checkRecord(std::uint32_t label, const Attributes& attributes, EndpointManager& manager) {
    const EndpointPtr endpoint = manager.createEndpoint(label, closeEndpointSockets);
    if (!endpoint) {
        return;  // Without an upstream address no socket can be opened.
    }
    const FlowDesc& flow = endpoint->flow;
    require(flow.label == label && flow.isAuxFlow == 0, "a label that was set is a main flow");
    if (const auto it = attributes.find("is_multiplex"); it != attributes.end()) {
        require(flow.isMultiplex == (it->second == "true"), "the multiplex flag is stored");
    }
    if (const auto it = attributes.find("up_in_key"); it != attributes.end()) {
        require(flow.up.inHmac.keyLen == it->second.size() / 2, "the key is stored");
    }
    if (const auto it = attributes.find("down_out_algo"); it != attributes.end()) {
        require(flow.down.outHmac.algoName == it->second, "the algorithm is stored");
    }
    manager.deleteEndpoint(*endpoint);
}

void checkOutcome(bool isDel, const Attributes& attributes, std::optional<bool> accepted,
                  const Context& context) {
    switch (verdictOnSet(attributes)) {
        case Verdict::accepted:
            // An update may add a port to an old host text that was never resolved.
            require(accepted != false && (accepted || !isDel), "a right command is accepted");
            break;
        case Verdict::refused:
            // The resolver may have failed before the bad attribute was parsed.
            require(!accepted.value_or(false), "a wrong command is not carried out");
            break;
        case Verdict::undetermined:
            break;
    }
    if (!accepted.value_or(false)) {
        return;
    }
    const std::uint32_t label = labelOf(attributes);
    if (isDel) {
        // Another flow's prefix may still make it an auxiliary flow, but it is not a main flow.
        const EndpointPtr left = context->endpointManager->findEndpointByLabel(label);
        require(left == nullptr, "a label that was deleted has no endpoint");
    } else {
        checkRecord(label, attributes, *context->endpointManager);
    }
}

void runLine(std::string_view line, const Context& context) {
    TokenQueue words = splitCommandLine(line);
    const bool isDel = !words.empty() && words.front() == "del";
    if (isDel || (!words.empty() && words.front() == "set")) {
        words.pop_front();
    }
    TokenQueue copy = words;
    const Attributes attributes = parseCommandAttrs(copy);
    checkOutcome(isDel, attributes, carryOut(isDel, words, context), context);
}

}  // namespace
}  // namespace vesk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vesk;
    using namespace vesk::fuzz;
    const auto context = std::make_shared<ForwarderContext>(2);
    const std::string input(data, data + size);
    for (std::size_t begin = 0; begin < input.size();) {
        const std::size_t end = std::min(input.find('\n', begin), input.size());
        runLine(std::string_view(input).substr(begin, end - begin), context);
        begin = end + 1;
    }
    require(context->endpointManager->endpoints().empty(), "no endpoint is left over");
    return 0;
}
