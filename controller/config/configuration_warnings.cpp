#include "config/configuration_warnings.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <string>

#include "config/findings.h"
#include "config/flow_place.h"
#include "config/instance_configurations.h"
#include "config/key_mask.h"
#include "config/key_warnings.h"
#include "config/numeric_address.h"

namespace vesk::controller {

namespace {

std::string hexadecimal(std::uint32_t number) {
    std::array<char, 8> digits{};
    const auto end = std::to_chars(digits.begin(), digits.end(), number, 16).ptr;
    return "0x" + std::string(digits.begin(), end);
}

void warnOfForeignLabels(const Configuration& configuration, const Lateral& lateral,
                         std::vector<std::string>& warnings) {
    Findings foreign;
    const auto look = [&](const Flow& flow, const char* kind, std::uint32_t number,
                          std::uint32_t prefix) {
        const std::uint32_t owner = prefix % lateral.instances;
        if (!lateral.isHere(owner)) {
            foreign.add(placeOf(flow) + " (" + kind + " " + hexadecimal(number) + ", instance " +
                        std::to_string(owner) + ")");
        }
    };
    for (const auto& [label, flow] : configuration.flows) {
        look(flow, "label", label, label >> prefixBits);
        if (flow.auxiliary) {
            look(flow, "prefix", flow.auxiliary->prefix, flow.auxiliary->prefix);
        }
    }
    if (foreign.any()) {
        warnings.push_back(foreign.counted("label or prefix belongs", "labels or prefixes belong") +
                           " to another instance of the lateral group, which receives their "
                           "datagrams: " +
                           foreign.examples());
    }
}

void warnOfMissingPeers(const Lateral& lateral, std::vector<std::string>& warnings) {
    const std::uint32_t others = lateral.instances - lateral.instancesHere();
    if (lateral.peers.size() + lateral.peerNames.size() >= others) {
        return;
    }
    const std::uint64_t unnamed = others - lateral.peers.size();
    Findings missing;
    std::uint64_t named = 0;
    for (std::uint32_t index = 0; named < std::min<std::uint64_t>(unnamed, Findings::mostExamples);
         ++index) {
        if (!lateral.isHere(index) && !lateral.peers.contains(index)) {
            missing.add(std::to_string(index));
            ++named;
        }
    }
    missing.addUnnamed(unnamed - named);
    warnings.push_back("lateral.peers names " + std::to_string(lateral.peers.size()) + " of the " +
                       std::to_string(others) +
                       " other instances, and datagrams for labels of the missing ones are "
                       "dropped; missing: " +
                       missing.examples());
}

void warnOfReplacedSources(const Configuration& configuration, std::vector<std::string>& warnings) {
    if (configuration.forwarder.ipv4Source == "arrival") {
        return;
    }
    Findings replaced;
    for (const auto& [label, flow] : configuration.flows) {
        if (flow.source && isIPv4(flow.source->host)) {
            replaced.add(shownNameOf(flow));
        }
    }
    if (replaced.any()) {
        warnings.push_back(replaced.counted("flow has", "flows have") +
                           " an IPv4 source, but without ipv4_source = \"arrival\" the kernel may "
                           "send from another address: " +
                           replaced.examples());
    }
}

/// A socket that opens and expires between two reports appears in none of them.
void warnOfUnseenTraffic(const Configuration& configuration, std::vector<std::string>& warnings) {
    if (!configuration.forwarder.expireMainFlows ||
        configuration.forwarder.cleanupInterval >= configuration.supervision.stats) {
        return;
    }
    Findings changing;
    for (const auto& [label, flow] : configuration.flows) {
        const bool automatic =
            flow.next && flow.next->rotate.value_or(configuration.supervision.rotate).count() != 0;
        if (automatic) {
            changing.add(shownName(flow.name));
        }
    }
    if (changing.any()) {
        warnings.push_back("forwarder.cleanup_interval is below controller.stats_seconds, so " +
                           changing.counted("flow", "flows") +
                           " with a next may look silent and lose the old label too early: " +
                           changing.examples());
    }
}

}  // namespace

std::vector<std::string> configurationWarnings(const Configuration& configuration) {
    std::vector<std::string> warnings;
    if (configuration.flows.empty()) {
        warnings.emplace_back("there are no flows: all datagrams from peers will be dropped");
    }
    warnOfKeys(configuration, warnings);
    if (configuration.lateral) {
        warnOfForeignLabels(configuration, *configuration.lateral, warnings);
        warnOfMissingPeers(*configuration.lateral, warnings);
    }
    warnOfReplacedSources(configuration, warnings);
    warnOfUnseenTraffic(configuration, warnings);
    return warnings;
}

}  // namespace vesk::controller
