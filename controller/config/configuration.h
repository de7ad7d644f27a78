// The contents of the configuration file as checked values, with defaults for missing keys. Made by
// config/configuration_reader, turned into command lines by commands/.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vesk::controller {

/// A numeric address and a port from 1 to 65535.
struct HostPort {
    std::string host;
    std::uint16_t port = 0;
    bool operator==(const HostPort&) const = default;
};

/// The lines of the file, from 1, with the address and port to listen on.
struct ListenLines {
    std::string file;
    std::uint32_t address = 0;
    std::uint32_t port = 0;
};

/// How one leg of a flow is signed. The digits are lower-case hex and are never printed.
struct Signature {
    std::string keyDigits;
    std::string algorithm;
    bool operator==(const Signature&) const = default;
};

/// One of a flow's four legs; only the two that leave the forwarder have a label and DSCP.
struct Leg {
    std::optional<Signature> signature;
    std::optional<std::uint32_t> label;
    std::optional<int> dscp;
    bool inheritedKey = false;  ///< of a `next`: the key is that of its flow
    bool operator==(const Leg&) const = default;
};

struct AuxiliaryFlows {
    std::uint16_t prefix = 0;
    std::uint32_t upstreamLabel = 0;
    std::optional<HostPort> upstream;
    bool operator==(const AuxiliaryFlows&) const = default;
};

/// The label to which a flow's peers move.
struct NextLabel {
    std::uint32_t label = 0;
    /// How long the flow's own label has to be silent before it is deleted; none:
    /// SupervisionSettings::rotate.
    std::optional<std::chrono::seconds> rotate;
    bool operator==(const NextLabel&) const = default;
};

/// A label with its attributes. A flow of the file that has a `next` is two of these.
struct Flow {
    std::string name;  ///< for display: a key entered as a name is masked
    std::uint32_t label = 0;
    HostPort upstream;
    std::optional<HostPort> source;
    std::optional<HostPort> peer;
    bool multiplex = false;
    Leg fromPeer;
    Leg toUpstream;
    Leg fromUpstream;
    Leg toPeer;
    std::optional<AuxiliaryFlows> auxiliary;
    std::optional<NextLabel> next;
    bool isNext = false;  ///< it is the `next` of the flow with this name
    /// Of an instance's part: another instance has the flow, too.
    bool onTwoInstances = false;

    bool operator==(const Flow&) const = default;
};

/// The arguments and environment of the forwarder, and its log level.
struct ForwarderSettings {
    std::optional<std::string> program;
    std::string framing = "udpv2";
    std::chrono::seconds cleanupInterval{600};
    bool expireMainFlows = true;
    bool expireAuxiliaryFlows = true;
    std::string ipv4Source = "arrival";
    std::string logLevel = "info";
    std::uint32_t instances = 1;  ///< on this host; a power of two
};

/// Where the instances of this host listen, each on a port of its own, if the datagrams to the
/// public port are steered to them. Both ends are included.
struct InstancePorts {
    std::uint16_t first = 0;
    std::uint16_t last = 0;
    /// Of the lateral stream between the instances, on loopback addresses.
    std::uint16_t lateral = 0;
    bool operator==(const InstancePorts&) const = default;
};

struct Lateral {
    HostPort listen;
    /// Of this host's instances, if it has several; the host of `listen` is then empty.
    std::vector<std::string> addresses;
    std::uint32_t index = 0;  ///< of this host's first instance
    std::uint32_t instances = 0;
    std::map<std::uint32_t, std::string> peers;  ///< addresses by index
    /// By index; what they are resolved to is added to `peers` while the controller runs.
    std::map<std::uint32_t, std::string> peerNames;
    std::chrono::seconds resolve{30};  ///< from the answers to the next questions

    std::uint32_t instancesHere() const {
        return addresses.empty() ? 1 : static_cast<std::uint32_t>(addresses.size());
    }
    bool isHere(std::uint32_t other) const {
        return other >= index && other - index < instancesHere();
    }
};

struct SupervisionSettings {
    std::chrono::milliseconds restartPause{100};
    std::chrono::milliseconds restartPauseMax{30000};
    std::chrono::seconds leave{0};  ///< from the request to end to the drain
    std::chrono::seconds drain{10};
    std::chrono::seconds stats{10};
    bool logLimit = true;
    std::chrono::seconds answer{10};
    /// How long an old label has to be silent before it is deleted; 0: never.
    std::chrono::seconds rotate{3600};
    bool strict = false;  ///< not ready while a flow of the file is refused
};

struct MetricsSettings {
    bool enabled = true;
    std::string address = "127.0.0.1";
    std::uint16_t port = 9477;
    bool perFlow = false;
    bool required = false;  ///< exit if they cannot be served at the start
    bool operator==(const MetricsSettings&) const = default;
};

struct Configuration {
    ForwarderSettings forwarder;
    HostPort downstream;
    ListenLines downstreamLines;
    std::optional<InstancePorts> instancePorts;
    std::optional<Lateral> lateral;
    SupervisionSettings supervision;
    MetricsSettings metrics;
    std::map<std::uint32_t, Flow> flows;  ///< by label; names are not sent to the forwarder
};

}  // namespace vesk::controller
