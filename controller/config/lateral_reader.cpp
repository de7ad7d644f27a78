#include "config/lateral_reader.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "config/address_reader.h"
#include "config/lateral_number_reader.h"
#include "config/numeric_address.h"
#include "config/peer_names_reader.h"

namespace vesk::controller {

namespace {

void readPeer(TableReader& peer, Lateral& lateral) {
    const std::uint32_t index = readNumber(peer, "index", 0, greatestNumber);
    peer.require("address");
    std::string address = readAddress(peer, "address");
    peer.refuseUnknown();
    if (peer.has("index") && index >= lateral.instances && lateral.instances != 0) {
        peer.complain("index", "must be below the number of instances");
    }
    if (peer.has("index") && lateral.isHere(index)) {
        peer.complain("index", lateral.addresses.empty()
                                   ? "is the index of this instance"
                                   : "is the index of an instance of this host");
    }
    if (!lateral.peers.emplace(index, std::move(address)).second) {
        peer.complain("index", "is used twice");
    }
}

void readPeers(TableReader& table, Lateral& lateral) {
    if (!table.require("peers")) {
        return;
    }
    const toml::array* const peers = table.array("peers");
    if (peers == nullptr) {
        return;
    }
    if (peers->empty()) {
        table.complain("peers", "is empty: the lateral stream needs at least one peer");
    }
    for (const toml::node& node : *peers) {
        if (const toml::table* const entry = node.as_table()) {
            TableReader peer(*entry, table.placeOf("peers"), table.problems());
            readPeer(peer, lateral);
        } else {
            table.complain("peers",
                           "must contain tables like { index = 1, address = \"192.0.2.1\" }");
        }
    }
}

/// The numeric addresses of the array, each of them once.
std::vector<std::string> readAddresses(TableReader& table, std::string_view key) {
    std::vector<std::string> addresses;
    const toml::array* const array = table.array(key);
    if (array == nullptr) {
        return addresses;
    }
    for (const toml::node& node : *array) {
        const toml::value<std::string>* const text = node.as_string();
        if (text == nullptr || !isNumericHost(text->get())) {
            table.complain(key, "must contain numeric addresses");
        } else if (std::ranges::find(addresses, text->get()) != addresses.end()) {
            table.complain(key, "contains an address twice");
        }
        addresses.push_back(text == nullptr ? "" : text->get());
    }
    return addresses;
}

/// Where the instances of this host listen: at "address", or each at one of "addresses".
void readOwnAddresses(TableReader& table, std::uint32_t instances, Lateral& lateral) {
    if (instances == 1) {
        lateral.listen = readListen(table);
        return;
    }
    table.require("addresses");
    table.require("port");
    lateral.listen.port = readPort(table, "port");
    lateral.addresses = readAddresses(table, "addresses");
    if (table.has("addresses") && lateral.addresses.size() != instances) {
        table.complain("addresses", "must contain " + std::to_string(instances) +
                                        " addresses, one for each instance");
    }
}

/// The numbers of a host begin with a multiple of its instances: only then the lateral stream and
/// the rules agree on the owner of a label.
void checkMultiple(TableReader& table, std::uint32_t instances, const LateralNumber& number) {
    if (number.value % instances != 0) {
        table.complain(number.key,
                       "must be a multiple of forwarder.instances, " + std::to_string(instances));
    }
}

/// The index and the number of all instances.
void readIdentity(TableReader& table, std::uint32_t instancesHere, Lateral& lateral) {
    const LateralNumber instances = readLateralInstances(table);
    const LateralNumber index = readLateralIndex(table);
    checkMultiple(table, instancesHere, index);
    checkMultiple(table, instancesHere, instances);
    if (index.known && instances.known && index.value >= instances.value) {
        table.complain(index.key, "must be below the number of instances");
    }
    lateral.instances = instances.value;
    lateral.index = index.value;
}

/// The other instances: their addresses, or their names.
void readOthers(TableReader& table, Lateral& lateral) {
    constexpr std::int64_t longestPause = 86400;
    const std::optional<std::int64_t> pause = table.integer("resolve_seconds", 1, longestPause);
    if (!table.has("peers_from")) {
        readPeers(table, lateral);
        return;
    }
    readPeerNames(table, lateral);
    lateral.resolve = std::chrono::seconds(pause.value_or(lateral.resolve.count()));
    if (table.has("peers")) {
        table.require("peers");
        table.complain("peers_from", "and peers are mutually exclusive");
    }
}

void checkPort(TableReader& table, const Configuration& configuration, const Lateral& lateral) {
    if (lateral.listen.port == 0) {
        return;
    }
    const std::optional<InstancePorts>& ports = configuration.instancePorts;
    if (lateral.listen == configuration.downstream ||
        (ports && lateral.listen.port == configuration.downstream.port)) {
        table.complain("port", "is the same as downstream.port, on the same address");
    } else if (ports && lateral.listen.port >= ports->first && lateral.listen.port <= ports->last) {
        table.complain("port", "is one of downstream.instance_ports");
    }
}

}  // namespace

std::optional<Lateral> readLateral(TableReader& root, const Configuration& configuration) {
    std::optional<TableReader> table = root.table("lateral");
    if (!table) {
        return std::nullopt;
    }
    Lateral lateral;
    const std::uint32_t instances = configuration.forwarder.instances;
    readOwnAddresses(*table, instances, lateral);
    checkPort(*table, configuration, lateral);
    readIdentity(*table, instances, lateral);
    readOthers(*table, lateral);
    table->refuseUnknown();
    return lateral;
}

}  // namespace vesk::controller
