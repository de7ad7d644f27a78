#include "traffic/controller_file.h"

#include <cstddef>
#include <string_view>

#include "lib/authentication.h"

namespace vesk::bench {
namespace {

/// `more` has the entries of the leg besides its signature. A leg without any entry is left out.
void printLeg(std::ostream& out, std::string_view name, const HmacKey& key,
              const std::string& more = "") {
    std::string signature;
    if (!key.bytes.empty()) {
        signature = "key = \"" + toHex(key.bytes) + "\", algorithm = \"" +
                    std::string(algorithmName(key.algorithm)) + "\"";
    }
    if (signature.empty() && more.empty()) {
        return;
    }
    const std::string_view comma = signature.empty() || more.empty() ? "" : ", ";
    out << name << " = { " << signature << comma << more << " }\n";
}

std::string labelEntry(std::uint32_t label) {
    return "label = " + std::to_string(label);
}

void printFlow(std::ostream& out, const FlowPlan& plan) {
    out << labelEntry(plan.label) << "\nupstream = \"127.0.0.1:" << plan.upPort << "\"\n";
    if (!plan.source.empty()) {
        out << "source = \"" << plan.source << ":" << plan.sourcePort << "\"\n";
    }
    printLeg(out, "from_peer", plan.downIn);
    printLeg(out, "to_upstream", plan.upOut, labelEntry(plan.upLabel));
    printLeg(out, "from_upstream", plan.upIn);
    printLeg(out, "to_peer", plan.downOut, labelEntry(plan.downLabel));
}

}  // namespace

void printControllerFile(std::ostream& out, const FramingLayout& framing,
                         const std::vector<FlowPlan>& plans, const std::string& address,
                         std::uint16_t port) {
    out << "[forwarder]\nframing = \"" << framing.name << "\"\n\n[downstream]\naddress = \""
        << address << "\"\nport = " << port << "\n";
    std::size_t number = 0;
    for (const FlowPlan& plan : plans) {
        out << "\n[flows.flow" << ++number << "]\n";
        printFlow(out, plan);
    }
}

}  // namespace vesk::bench
