#include "traffic/controller_file.h"

#include <cstddef>
#include <string>
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

void printLegs(std::ostream& out, const FlowPlan& plan) {
    printLeg(out, "from_peer", plan.downIn);
    printLeg(out, "to_upstream", plan.upOut, labelEntry(plan.upLabel));
    printLeg(out, "from_upstream", plan.upIn);
    printLeg(out, "to_peer", plan.downOut, labelEntry(plan.downLabel));
}

void printFlow(std::ostream& out, const FlowPlan& plan) {
    out << labelEntry(plan.label) << "\nupstream = \"127.0.0.1:" << plan.upPort << "\"\n";
    if (!plan.source.empty()) {
        out << "source = \"" << plan.source << ":" << plan.sourcePort << "\"\n";
    }
    printLegs(out, plan);
}

}  // namespace

void printControllerFile(std::ostream& out, const TrafficOptions& options,
                         const std::vector<FlowPlan>& plans) {
    out << "[forwarder]\nframing = \"" << options.framing->name
        << "\"\n\n[downstream]\naddress = \"" << options.address << "\"\nport = " << options.port
        << "\n";
    const std::size_t flows = options.flows.flows;
    for (std::size_t number = 0; number < flows; ++number) {
        const std::string name = "flows.flow" + std::to_string(number + 1);
        out << "\n[" << name << "]\n";
        printFlow(out, plans[number]);
        if (plans.size() > flows) {
            const FlowPlan& next = plans[flows + number];
            out << "\n[" << name << ".next]\n" << labelEntry(next.label) << "\n";
            printLegs(out, next);
        }
    }
}

}  // namespace vesk::bench
