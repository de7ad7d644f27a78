#include "config/leg_reader.h"

#include <array>
#include <limits>

#include "config/key_reader.h"
#include "config/numeric_address.h"

namespace vesk::controller {

namespace {

constexpr std::int64_t greatestLabel = std::numeric_limits<std::uint32_t>::max();
constexpr std::int64_t greatestPrefix = std::numeric_limits<std::uint16_t>::max();
constexpr std::int64_t greatestDscp = 63;
constexpr std::array<std::string_view, 2> algorithms{"sha256", "sha1"};

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

bool sameFamily(const HostPort& one, const HostPort& other) {
    return isIPv6(one.host) == isIPv6(other.host);
}

}  // namespace

KeySources keySourcesOf(const Document& document, const std::filesystem::path& file,
                        bool allowReadable) {
    return {
        file.parent_path(), allowReadable, document.variables.wholeStrings, std::nullopt, {}, {}};
}

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

Leg readLeg(TableReader& parent, std::string_view key, Direction direction, KeySources& keys) {
    Leg leg;
    std::optional<TableReader> table = parent.table(key);
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

std::optional<AuxiliaryFlows> readAuxiliary(TableReader& parent) {
    std::optional<TableReader> table = parent.table("auxiliary");
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

}  // namespace vesk::controller
