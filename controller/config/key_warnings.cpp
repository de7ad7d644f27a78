#include "config/key_warnings.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>

#include "config/findings.h"
#include "config/flow_place.h"

namespace vesk::controller {

namespace {

constexpr std::size_t leastKeyBytes = 16;

struct NamedLeg {
    const char* name;
    Leg Flow::*leg;
};

constexpr std::array<NamedLeg, 4> legs{{{"from_peer", &Flow::fromPeer},
                                        {"to_upstream", &Flow::toUpstream},
                                        {"from_upstream", &Flow::fromUpstream},
                                        {"to_peer", &Flow::toPeer}}};

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
            open.add(shownNameOf(flow));
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

/// The flows that have a `next`, by its label.
using NextPairs = std::map<std::uint32_t, const Flow*>;

NextPairs pairsOf(const Configuration& configuration) {
    NextPairs pairs;
    for (const auto& [label, flow] : configuration.flows) {
        if (flow.next) {
            pairs.emplace(flow.next->label, &flow);
        }
    }
    return pairs;
}

/// Whether this leg of a `next` has the key of the same leg of its flow.
bool sharesKey(const NextPairs& pairs, const Flow& flow, const NamedLeg& leg) {
    const auto before = pairs.find(flow.label);
    return before != pairs.end() && (flow.*leg.leg).signature &&
           (before->second->*leg.leg).signature &&
           (flow.*leg.leg).signature->keyDigits == (before->second->*leg.leg).signature->keyDigits;
}

/// The legs that use each key, whatever the algorithm. What a `next` shares with its flow is left
/// out.
std::map<std::string_view, std::vector<std::string>> usesOfKeys(
    const Configuration& configuration) {
    const NextPairs pairs = pairsOf(configuration);
    std::map<std::string_view, std::vector<std::string>> uses;
    for (const auto& [label, flow] : configuration.flows) {
        for (const NamedLeg& leg : legs) {
            const std::optional<Signature>& signature = (flow.*leg.leg).signature;
            if (signature && !sharesKey(pairs, flow, leg)) {
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

void warnOfUnchangedKeys(const Configuration& configuration, std::vector<std::string>& warnings) {
    const NextPairs pairs = pairsOf(configuration);
    Findings unchanged;
    for (const auto& [label, flow] : configuration.flows) {
        for (const NamedLeg& leg : legs) {
            if (!(flow.*leg.leg).inheritedKey && sharesKey(pairs, flow, leg)) {
                unchanged.add(placeOf(flow) + "." + leg.name);
            }
        }
    }
    if (unchanged.any()) {
        warnings.push_back(
            unchanged.counted("key in next equals", "keys in next equal") +
            " that of the flow, so the old key stays valid: " + unchanged.examples());
    }
}

}  // namespace

void warnOfKeys(const Configuration& configuration, std::vector<std::string>& warnings) {
    warnOfMissingKeys(configuration, warnings);
    warnOfSharedKeys(configuration, warnings);
    warnOfUnchangedKeys(configuration, warnings);
    warnOfShortKeys(configuration, warnings);
}

}  // namespace vesk::controller
