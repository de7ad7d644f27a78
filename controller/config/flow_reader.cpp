#include "config/flow_reader.h"

#include <array>
#include <limits>

#include "config/key_mask.h"
#include "config/key_reader.h"
#include "config/numeric_address.h"

namespace vesk::controller {

namespace {

constexpr std::int64_t greatestLabel = std::numeric_limits<std::uint32_t>::max();
constexpr std::int64_t greatestPrefix = std::numeric_limits<std::uint16_t>::max();
constexpr std::int64_t greatestDscp = 63;
constexpr std::array<std::string_view, 2> algorithms{"sha256", "sha1"};

enum class Direction { arriving, leaving };

std::optional<std::uint32_t> readLabel(TableReader& table, std::string_view key) {
    const std::optional<std::int64_t> label = table.integer(key, 1, greatestLabel);
    return label ? std::optional(static_cast<std::uint32_t>(*label)) : std::nullopt;
}

std::optional<HostPort> readHostPort(TableReader& table, std::string_view key) {
    const std::optional<std::string> text = table.text(key);
    if (!text) {
        return std::nullopt;
    }
    std::optional<HostPort> address = parseHostPort(*text);
    if (!address) {
        table.complain(key, R"(must be a numeric address and a port, "127.0.0.1:5000" or )"
                            R"("[::1]:5000")");
    }
    return address;
}

void addKeyFile(const std::filesystem::path& path, KeySources& keys) {
    const std::filesystem::path folder = path.parent_path();
    if (!keys.folders.contains(folder.string())) {
        keys.folders.emplace(folder.string(), stateOf(folder));
    }
    keys.files.push_back({path, stateOf(path)});
}

std::string readKeyOf(TableReader& leg, KeySources& keys) {
    // Read even if it is not used: a key that was not read is reported as unknown.
    const std::optional<std::string> file = leg.text("key_file");
    if (leg.has("key") && leg.has("key_file")) {
        leg.complain("key_file", "and key are mutually exclusive");
    }
    if (const std::optional<std::string> digits = leg.text("key")) {
        if (!keys.fromVariables.contains(leg.raw().get("key"))) {
            keys.firstInlineKey = keys.firstInlineKey.value_or(leg.lineOf("key"));
        }
        const KeyReading key = readKey(*digits);
        if (!key.problem.empty()) {
            leg.complain("key", "is not usable: " + key.problem);
        }
        return key.digits;
    }
    if (file && !leg.has("key")) {
        const std::filesystem::path path = keys.folder / *file;
        addKeyFile(path, keys);
        const KeyReading key = readKeyFile(path, keys.allowReadable);
        if (!key.problem.empty()) {
            leg.complain("key_file", "is not usable: " + key.problem);
        }
        return key.digits;
    }
    return "";
}

std::optional<Signature> readSignature(TableReader& leg, KeySources& keys) {
    std::string digits = readKeyOf(leg, keys);
    const std::optional<std::string> algorithm = leg.choice("algorithm", algorithms);
    if (algorithm && !leg.has("key") && !leg.has("key_file")) {
        leg.complain("algorithm", "requires key or key_file");
    }
    if (digits.empty()) {
        return std::nullopt;
    }
    return Signature{std::move(digits), algorithm.value_or(std::string(algorithms.front()))};
}

Leg readLeg(TableReader& flow, std::string_view key, Direction direction, KeySources& keys) {
    Leg leg;
    std::optional<TableReader> table = flow.table(key);
    if (!table) {
        return leg;
    }
    leg.signature = readSignature(*table, keys);
    if (direction == Direction::leaving) {
        leg.label = readLabel(*table, "label");
        if (const auto dscp = table->integer("dscp", 0, greatestDscp)) {
            leg.dscp = static_cast<int>(*dscp);
        }
    }
    table->refuseUnknown();
    return leg;
}

std::optional<AuxiliaryFlows> readAuxiliary(TableReader& flow) {
    std::optional<TableReader> table = flow.table("auxiliary");
    if (!table) {
        return std::nullopt;
    }
    table->require("prefix");
    table->require("upstream_label");
    AuxiliaryFlows auxiliary;
    auxiliary.prefix =
        static_cast<std::uint16_t>(table->integer("prefix", 1, greatestPrefix).value_or(0));
    auxiliary.upstreamLabel = readLabel(*table, "upstream_label").value_or(0);
    auxiliary.upstream = readHostPort(*table, "upstream");
    table->refuseUnknown();
    return auxiliary;
}

bool sameFamily(const HostPort& one, const HostPort& other) {
    return isIPv6(one.host) == isIPv6(other.host);
}

/// A socket bound to an address of one family cannot send to the other.
void checkSource(TableReader& table, const Flow& flow) {
    if (!flow.source) {
        return;
    }
    if (!flow.upstream.host.empty() && !sameFamily(*flow.source, flow.upstream)) {
        table.complain("source", "and upstream must have the same address family");
    }
    if (flow.auxiliary && flow.auxiliary->upstream &&
        !sameFamily(*flow.source, *flow.auxiliary->upstream)) {
        table.complain("source", "and auxiliary.upstream must have the same address family");
    }
}

Flow readFlow(TableReader& table, std::string name, KeySources& keys) {
    Flow flow;
    flow.name = std::move(name);
    table.require("label");
    table.require("upstream");
    flow.label = readLabel(table, "label").value_or(0);
    flow.upstream = readHostPort(table, "upstream").value_or(HostPort{});
    flow.source = readHostPort(table, "source");
    flow.peer = readHostPort(table, "peer");
    flow.multiplex = table.boolean("multiplex").value_or(false);
    flow.fromPeer = readLeg(table, "from_peer", Direction::arriving, keys);
    flow.toUpstream = readLeg(table, "to_upstream", Direction::leaving, keys);
    flow.fromUpstream = readLeg(table, "from_upstream", Direction::arriving, keys);
    flow.toPeer = readLeg(table, "to_peer", Direction::leaving, keys);
    flow.auxiliary = readAuxiliary(table);
    checkSource(table, flow);
    table.refuseUnknown();
    return flow;
}

/// Names appear in log lines and metrics.
bool isPlainName(std::string_view name) {
    for (const char c : name) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            return false;
        }
    }
    return !name.empty();
}

/// The numbers of one kind that are in use, and how to report one that is used twice.
struct Owners {
    std::string_view key;
    std::string_view fault;                       ///< followed by the place of the first user
    std::map<std::uint32_t, std::string> places;  ///< of the first users, by number
};

/// Enters the number of the flow at `place`; 0 means a number that could not be read.
void claim(Owners& owners, std::uint32_t number, const std::string& place, TableReader& table) {
    if (number == 0) {
        return;
    }
    const auto [owner, added] = owners.places.emplace(number, place);
    if (!added) {
        table.complain(owners.key, std::string(owners.fault) + owner->second);
    }
}

}  // namespace

KeySources keySourcesOf(const Document& document, const std::filesystem::path& file,
                        bool allowReadable) {
    return {
        file.parent_path(), allowReadable, document.variables.wholeStrings, std::nullopt, {}, {}};
}

std::map<std::uint32_t, Flow> readFlows(TableReader& flows, KeySources& keys) {
    std::map<std::uint32_t, Flow> result;
    Owners labels{"label", "is already used by ", {}};
    Owners prefixes{"auxiliary", "has the same prefix as ", {}};
    for (const auto& [key, node] : flows.raw()) {
        std::optional<TableReader> table = flows.table(key.str());
        if (!isPlainName(key.str())) {
            flows.complain(key.str(), "is not a valid name: it is empty or has control characters");
        }
        if (!table) {
            continue;
        }
        Flow flow = readFlow(*table, maskKeyDigits(key.str()), keys);
        const std::string place = flows.placeOf(key.str());
        claim(labels, flow.label, place, *table);
        if (flow.auxiliary) {
            claim(prefixes, flow.auxiliary->prefix, place, *table);
        }
        result.try_emplace(flow.label, std::move(flow));
    }
    return result;
}

void refuseReadableKey(const KeySources& keys, bool readableByOthers, Problems& problems) {
    if (keys.firstInlineKey && readableByOthers && !keys.allowReadable) {
        problems.push_back({*keys.firstInlineKey,
                            "the file contains a key and is readable by others: run chmod go-r on "
                            "it, or use --allow-readable-keys"});
    }
}

}  // namespace vesk::controller
