#include "config/configuration_warnings.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "config/instance_configurations.h"
#include "config/key_mask.h"
#include "config/numeric_address.h"

namespace vesk::controller {

namespace {

constexpr std::size_t mostExamples = 3;
constexpr std::size_t leastKeyBytes = 16;

/// The findings of one kind: their number, and the names of the first few.
class Findings {
 public:
    void add(std::string name) {
        if (count_ < mostExamples) {
            names_.push_back(std::move(name));
        }
        ++count_;
    }

    void addUnnamed(std::uint64_t count) { count_ += count; }

    bool any() const { return count_ != 0; }

    /// "1 flow has" or "7 flows have", from "flow has" and "flows have".
    std::string counted(const char* one, const char* several) const {
        return std::to_string(count_) + " " + (count_ == 1 ? one : several);
    }

    /// "alice, bob, carol and 4 more".
    std::string examples() const {
        std::string text;
        for (const std::string& name : names_) {
            text += (text.empty() ? "" : ", ") + name;
        }
        const std::uint64_t more = count_ - names_.size();
        return more == 0 ? text : text + " and " + std::to_string(more) + " more";
    }

 private:
    std::uint64_t count_ = 0;
    std::vector<std::string> names_;
};

struct NamedLeg {
    const char* name;
    Leg Flow::*leg;
};

constexpr std::array<NamedLeg, 4> legs{{{"from_peer", &Flow::fromPeer},
                                        {"to_upstream", &Flow::toUpstream},
                                        {"from_upstream", &Flow::fromUpstream},
                                        {"to_peer", &Flow::toPeer}}};

std::string placeOf(const Flow& flow) {
    return "flows." + shownName(flow.name);
}

std::string hexadecimal(std::uint32_t number) {
    std::array<char, 8> digits{};
    const auto end = std::to_chars(digits.begin(), digits.end(), number, 16).ptr;
    return "0x" + std::string(digits.begin(), end);
}

bool isLoopback(const std::string& host) {
    constexpr std::uint8_t loopbackNetwork = 127;
    in_addr ipv4{};
    if (inet_pton(AF_INET, host.c_str(), &ipv4) == 1) {
        return ntohl(ipv4.s_addr) >> 24U == loopbackNetwork;
    }
    in6_addr ipv6{};
    if (inet_pton(AF_INET6, host.c_str(), &ipv6) != 1) {
        return false;
    }
    return IN6_IS_ADDR_LOOPBACK(&ipv6) ||
           (IN6_IS_ADDR_V4MAPPED(&ipv6) && ipv6.s6_addr[12] == loopbackNetwork);
}

bool hasKey(const Flow& flow) {
    for (const NamedLeg& leg : legs) {
        if ((flow.*leg.leg).signature) {
            return true;
        }
    }
    return false;
}

void warnOfMissingKeys(const Configuration& configuration, std::vector<std::string>& warnings) {
    if (isLoopback(configuration.downstream.host)) {
        return;
    }
    Findings open;
    for (const auto& [label, flow] : configuration.flows) {
        if (!hasKey(flow)) {
            open.add(shownName(flow.name));
        }
    }
    if (open.any()) {
        warnings.push_back(open.counted("flow has", "flows have") + " no key, and " +
                           configuration.downstream.host +
                           " is not a loopback address, so anyone who can reach it can send to "
                           "their upstream services: " +
                           open.examples());
    }
}

/// The legs that use each key, whatever the algorithm.
std::map<std::string_view, std::vector<std::string>> usesOfKeys(
    const Configuration& configuration) {
    std::map<std::string_view, std::vector<std::string>> uses;
    for (const auto& [label, flow] : configuration.flows) {
        for (const NamedLeg& leg : legs) {
            if (const std::optional<Signature>& signature = (flow.*leg.leg).signature) {
                uses[signature->keyDigits].push_back(placeOf(flow) + "." + leg.name);
            }
        }
    }
    return uses;
}

void warnOfSharedKeys(const Configuration& configuration, std::vector<std::string>& warnings) {
    Findings shared;
    for (const auto& [key, places] : usesOfKeys(configuration)) {
        if (places.size() > 1) {
            shared.add(
                places[0] + " and " +
                (places.size() == 2 ? places[1] : std::to_string(places.size() - 1) + " others"));
        }
    }
    if (shared.any()) {
        warnings.push_back(shared.counted("key is", "keys are") +
                           " used for several legs or flows, so a datagram signed for one is also "
                           "valid for the others: " +
                           shared.examples());
    }
}

void warnOfShortKeys(const Configuration& configuration, std::vector<std::string>& warnings) {
    Findings small;
    for (const auto& [digits, places] : usesOfKeys(configuration)) {
        if (digits.size() < leastKeyBytes * 2) {
            small.add(places.front());
        }
    }
    if (small.any()) {
        warnings.push_back(small.counted("key is", "keys are") + " shorter than " +
                           std::to_string(leastKeyBytes) +
                           " bytes and can be guessed: " + small.examples());
    }
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
    for (std::uint32_t index = 0; named < std::min<std::uint64_t>(unnamed, mostExamples); ++index) {
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
            replaced.add(shownName(flow.name));
        }
    }
    if (replaced.any()) {
        warnings.push_back(replaced.counted("flow has", "flows have") +
                           " an IPv4 source, but without ipv4_source = \"arrival\" the kernel may "
                           "send from another address: " +
                           replaced.examples());
    }
}

}  // namespace

std::vector<std::string> configurationWarnings(const Configuration& configuration) {
    std::vector<std::string> warnings;
    if (configuration.flows.empty()) {
        warnings.emplace_back("there are no flows: all datagrams from peers will be dropped");
    }
    warnOfMissingKeys(configuration, warnings);
    warnOfSharedKeys(configuration, warnings);
    warnOfShortKeys(configuration, warnings);
    if (configuration.lateral) {
        warnOfForeignLabels(configuration, *configuration.lateral, warnings);
        warnOfMissingPeers(*configuration.lateral, warnings);
    }
    warnOfReplacedSources(configuration, warnings);
    return warnings;
}

}  // namespace vesk::controller
