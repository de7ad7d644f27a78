#include "steering/steering_rules.h"

#include <string_view>

#include "config/numeric_address.h"

namespace vesk::controller {

namespace {

constexpr std::size_t udpHeader = 8;
constexpr std::size_t labelSize = 4;
constexpr std::size_t bitsOfByte = 8;

// Where a framed datagram has its label, in bytes.
constexpr std::size_t labelOffsetV1 = 34;
constexpr std::size_t labelOffsetV2 = 16;

std::string tableName(std::uint16_t publicPort) {
    return "inet vesk_" + std::to_string(publicPort);
}

/// The upper 16 bits of the label.
std::string prefixField(const SteeringPlan& plan) {
    return "@th," + std::to_string((udpHeader + plan.labelOffset) * bitsOfByte) + ",16";
}

std::string labelField(const SteeringPlan& plan) {
    return "@th," + std::to_string((udpHeader + plan.labelOffset) * bitsOfByte) + ",32";
}

/// The length of the smallest datagram with a whole label, as the UDP header counts it.
std::string wholeLength(const SteeringPlan& plan) {
    return std::to_string(udpHeader + plan.labelOffset + labelSize);
}

std::string listOf(const std::vector<std::uint16_t>& ports) {
    std::string list;
    for (std::size_t instance = 0; instance < ports.size(); ++instance) {
        list.append(list.empty() ? "" : ", ")
            .append(std::to_string(instance) + " : " + std::to_string(ports[instance]));
    }
    return list;
}

/// The map has no default, and a rule can have no fixed port that is changed with the map.
std::string fallbackOf(std::uint16_t publicPort, const std::vector<std::uint16_t>& ports) {
    return std::to_string(publicPort) + " : " + std::to_string(ports.front());
}

/// The part of a rule that matches the host's address in this field, "daddr" or "saddr". A host
/// that forwards packets to others has wildcard addresses match only its own.
std::string addressMatch(const std::string& host, std::string_view field) {
    constexpr std::string_view mapped = "::ffff:";
    const std::string_view text(host);
    if (text.starts_with(mapped) && isIPv4(std::string(text.substr(mapped.size())))) {
        return addressMatch(std::string(text.substr(mapped.size())), field);
    }
    std::string own = "fib " + std::string(field) + " type local ";
    if (host == "::") {
        return own;
    }
    if (host == "0.0.0.0") {
        return "meta nfproto ipv4 " + own;
    }
    return (isIPv4(host) ? "ip " : "ip6 ") + std::string(field) + " " + host + " ";
}

std::string portRange(const SteeringPlan& plan) {
    const std::string first = std::to_string(plan.firstPort);
    return plan.firstPort == plan.lastPort ? first : first + "-" + std::to_string(plan.lastPort);
}

std::string mapsAndCounters(const SteeringPlan& plan) {
    return "    map instances {\n"
           "        typeof " +
           prefixField(plan) +
           " : udp dport\n"
           "        comment \"" +
           steeringMark(plan) +
           "\"\n"
           "        elements = { " +
           listOf(plan.ports) +
           " }\n"
           "    }\n"
           "    map fallback {\n"
           "        typeof udp dport : udp dport\n"
           "        elements = { " +
           fallbackOf(plan.publicPort, plan.ports) +
           " }\n"
           "    }\n"
           "    map staying {\n"
           "        typeof " +
           labelField(plan) +
           " : udp dport\n"
           "    }\n"
           "    set moved {\n"
           "        typeof " +
           labelField(plan) +
           "\n"
           "    }\n"
           "    counter too_short { }\n"
           "    counter fragments { }\n"
           "    counter unmatched { }\n"
           "    counter direct { }\n";
}

/// The rules that rewrite the port. `suffix` follows each of them.
std::string rewriting(const SteeringPlan& plan, const std::string& suffix) {
    const std::string whole = wholeLength(plan);
    const std::string last = std::to_string(plan.ports.size() - 1);
    const std::string toFirst = "udp dport set udp dport map @fallback" + suffix + " accept\n";
    return "        udp length >= " + whole + " udp dport set " + prefixField(plan) + " & " + last +
           " map @instances" + suffix +
           " accept\n"
           "        udp length < " +
           whole + " counter name too_short " + toFirst + "        counter name unmatched " +
           toFirst;
}

/// A rewritten port changes the checksum. A datagram without one has to stay without.
std::string steeringChains(const SteeringPlan& plan) {
    return "    chain without_checksum {\n" + rewriting(plan, " udp checksum set 0") +
           "    }\n"
           "    chain stay {\n"
           "    }\n"
           "    chain steer {\n"
           "        notrack\n"
           "        ip frag-off & 0x2000 != 0 counter name fragments\n"
           "        meta nfproto ipv6 exthdr frag exists counter name fragments\n"
           "        jump stay\n"
           "        udp checksum 0 goto without_checksum\n" +
           rewriting(plan, "") + "    }\n";
}

/// Datagrams of peers on this host are seen by connection tracking before they are received.
std::string hookedChains(const SteeringPlan& plan) {
    const std::string toHost = addressMatch(plan.host, "daddr");
    const std::string fromHost = addressMatch(plan.host, "saddr");
    const std::string port = std::to_string(plan.publicPort);
    return "    chain prerouting {\n"
           "        type filter hook prerouting priority raw; policy accept;\n"
           "        udp dport " +
           port + " " + toHost +
           "jump steer\n"
           "        udp dport " +
           portRange(plan) + " " + toHost +
           "counter name direct drop\n"
           "    }\n"
           "    chain output {\n"
           "        type filter hook output priority raw; policy accept;\n"
           "        udp dport " +
           port + " " + toHost +
           "notrack\n"
           "        udp sport " +
           portRange(plan) + " " + fromHost + "notrack udp sport set " + port +
           "\n"
           "    }\n";
}

}  // namespace

SteeringPlan steeringPlan(const Configuration& configuration,
                          const std::vector<std::uint16_t>& ports) {
    return {configuration.downstream.host,
            configuration.downstream.port,
            configuration.forwarder.framing == "udpv1" ? labelOffsetV1 : labelOffsetV2,
            ports,
            configuration.instancePorts->first,
            configuration.instancePorts->last};
}

std::string steeringMark(const SteeringPlan& plan) {
    // FNV-1a, which is the same in each version of the program.
    constexpr std::uint64_t prime = 0x100000001b3;
    std::uint64_t digest = 0xcbf29ce484222325;
    for (const char byte : steeringChains(plan) + hookedChains(plan)) {
        digest = (digest ^ static_cast<unsigned char>(byte)) * prime;
    }
    return "rules " + std::to_string(digest);
}

std::string steeringRules(const SteeringPlan& plan) {
    return steeringRemoval(plan.publicPort) + "table " + tableName(plan.publicPort) + " {\n" +
           mapsAndCounters(plan) + steeringChains(plan) + hookedChains(plan) + "}\n";
}

std::string steeringSwap(std::uint16_t publicPort, const std::vector<std::uint16_t>& ports) {
    const std::string table = tableName(publicPort);
    return "flush map " + table + " instances\nadd element " + table + " instances { " +
           listOf(ports) + " }\nflush map " + table + " fallback\nadd element " + table +
           " fallback { " + fallbackOf(publicPort, ports) + " }\n";
}

std::string steeringStay(const SteeringPlan& plan, std::uint16_t port,
                         const std::vector<std::uint32_t>& labels) {
    if (labels.empty()) {
        return "";
    }
    std::string elements;
    for (const std::uint32_t label : labels) {
        elements.append(elements.empty() ? "" : ", ")
            .append(std::to_string(label) + " : " + std::to_string(port));
    }
    const std::string table = tableName(plan.publicPort);
    const std::string rule = "add rule " + table + " stay ";
    const std::string toOld = "udp dport set " + labelField(plan) + " map @staying";
    return "add element " + table + " staying { " + elements + " }\n" + rule + "udp length < " +
           wholeLength(plan) + " return\n" + rule + labelField(plan) + " @moved return\n" + rule +
           "udp checksum 0 " + toOld + " udp checksum set 0 accept\n" + rule + toOld + " accept\n";
}

std::string steeringFollow(std::uint16_t publicPort, std::uint32_t label) {
    return "add element " + tableName(publicPort) + " moved { " + std::to_string(label) + " }\n";
}

std::string steeringStayEnd(std::uint16_t publicPort) {
    const std::string table = tableName(publicPort);
    return "flush chain " + table + " stay\nflush map " + table + " staying\nflush set " + table +
           " moved\n";
}

std::string steeringRemoval(std::uint16_t publicPort) {
    // Deleting a table that does not exist is an error.
    const std::string table = tableName(publicPort);
    return "table " + table + "\ndelete table " + table + "\n";
}

std::string steeringMapQuery(std::uint16_t publicPort) {
    return "list map " + tableName(publicPort) + " instances\n";
}

std::string steeringCountersQuery(std::uint16_t publicPort) {
    return "list counters table " + tableName(publicPort) + "\n";
}

}  // namespace vesk::controller
