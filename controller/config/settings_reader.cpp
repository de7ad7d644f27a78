#include "config/settings_reader.h"

#include <array>
#include <limits>

#include "config/numeric_address.h"

namespace vesk::controller {

namespace {

constexpr std::array<std::string_view, 2> framings{"udpv1", "udpv2"};
constexpr std::array<std::string_view, 2> ipv4Sources{"arrival", "kernel"};
constexpr std::array<std::string_view, 5> logLevels{"error", "warn", "info", "debug", "trace"};

constexpr std::int64_t greatestPort = 65535;
constexpr std::int64_t greatestNumber = std::numeric_limits<std::uint32_t>::max();
/// The greatest number of seconds that fits 64 bits in nanoseconds.
constexpr std::int64_t greatestInterval = 9223372036;
constexpr std::int64_t dayInSeconds = 86400;
constexpr std::int64_t dayInMilliseconds = dayInSeconds * 1000;

std::string readAddress(TableReader& table, std::string_view key) {
    const std::optional<std::string> address = table.text(key);
    if (address && !isNumericHost(*address)) {
        table.complain(key, "must be a numeric address");
    }
    return address.value_or("");
}

std::uint16_t readPort(TableReader& table, std::string_view key) {
    return static_cast<std::uint16_t>(table.integer(key, 1, greatestPort).value_or(0));
}

std::uint32_t readNumber(TableReader& table, std::string_view key, std::int64_t least,
                         std::int64_t greatest) {
    table.require(key);
    return static_cast<std::uint32_t>(table.integer(key, least, greatest).value_or(0));
}

HostPort readListen(TableReader& table) {
    table.require("address");
    table.require("port");
    return {readAddress(table, "address"), readPort(table, "port")};
}

void readPeer(TableReader& peer, Lateral& lateral) {
    const std::uint32_t index = readNumber(peer, "index", 0, greatestNumber);
    peer.require("address");
    std::string address = readAddress(peer, "address");
    peer.refuseUnknown();
    if (peer.has("index") && index >= lateral.instances && lateral.instances != 0) {
        peer.complain("index", "must be below the number of instances");
    }
    if (peer.has("index") && index == lateral.index) {
        peer.complain("index", "is the index of this instance");
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

template <typename Duration>
void readDuration(TableReader& table, std::string_view key, std::int64_t least,
                  std::int64_t greatest, Duration& target) {
    if (const std::optional<std::int64_t> count = table.integer(key, least, greatest)) {
        target = Duration(*count);
    }
}

}  // namespace

ForwarderSettings readForwarder(TableReader& root, const std::filesystem::path& folder) {
    ForwarderSettings settings;
    std::optional<TableReader> table = root.table("forwarder");
    if (!table) {
        return settings;
    }
    if (const std::optional<std::string> program = table->text("program")) {
        const bool path = program->find('/') != std::string::npos;
        settings.program = path ? (folder / *program).string() : *program;
        if (program->empty() || program->find('\0') != std::string::npos) {
            table->complain("program", "must be a path");
        }
    }
    settings.framing = table->choice("framing", framings).value_or(settings.framing);
    readDuration(*table, "cleanup_interval", 1, greatestInterval, settings.cleanupInterval);
    settings.expireMainFlows =
        table->boolean("expire_main_flows").value_or(settings.expireMainFlows);
    settings.expireAuxiliaryFlows =
        table->boolean("expire_auxiliary_flows").value_or(settings.expireAuxiliaryFlows);
    settings.ipv4Source = table->choice("ipv4_source", ipv4Sources).value_or(settings.ipv4Source);
    settings.logLevel = table->choice("log_level", logLevels).value_or(settings.logLevel);
    table->refuseUnknown();
    return settings;
}

HostPort readDownstream(TableReader& root, ListenLines& lines) {
    root.require("downstream");
    std::optional<TableReader> table = root.table("downstream");
    if (!table) {
        return {};
    }
    HostPort listen = readListen(*table);
    lines = {table->lineOf("address"), table->lineOf("port")};
    table->refuseUnknown();
    return listen;
}

std::optional<Lateral> readLateral(TableReader& root, const HostPort& downstream) {
    std::optional<TableReader> table = root.table("lateral");
    if (!table) {
        return std::nullopt;
    }
    Lateral lateral;
    lateral.listen = readListen(*table);
    if (lateral.listen == downstream && downstream.port != 0) {
        table->complain("port", "is the same as downstream.port, on the same address");
    }
    lateral.instances = readNumber(*table, "instances", 1, greatestNumber);
    lateral.index = readNumber(*table, "index", 0, greatestNumber);
    if (table->has("index") && lateral.instances != 0 && lateral.index >= lateral.instances) {
        table->complain("index", "must be below the number of instances");
    }
    readPeers(*table, lateral);
    table->refuseUnknown();
    return lateral;
}

SupervisionSettings readSupervision(TableReader& root) {
    SupervisionSettings settings;
    std::optional<TableReader> table = root.table("controller");
    if (!table) {
        return settings;
    }
    readDuration(*table, "restart_pause_ms", 1, dayInMilliseconds, settings.restartPause);
    readDuration(*table, "restart_pause_max_ms", 1, dayInMilliseconds, settings.restartPauseMax);
    readDuration(*table, "drain_seconds", 0, dayInSeconds, settings.drain);
    readDuration(*table, "stats_seconds", 1, dayInSeconds, settings.stats);
    settings.logLimit = table->boolean("log_limit").value_or(settings.logLimit);
    readDuration(*table, "answer_seconds", 1, dayInSeconds, settings.answer);
    if (settings.restartPause > settings.restartPauseMax) {
        table->complain("restart_pause_max_ms", "is below restart_pause_ms");
    }
    table->refuseUnknown();
    return settings;
}

MetricsSettings readMetrics(TableReader& root) {
    MetricsSettings settings;
    std::optional<TableReader> table = root.table("metrics");
    if (!table) {
        return settings;
    }
    settings.enabled = table->boolean("enabled").value_or(settings.enabled);
    if (table->has("address")) {
        settings.address = readAddress(*table, "address");
    }
    if (table->has("port")) {
        settings.port = readPort(*table, "port");
    }
    settings.perFlow = table->boolean("per_flow").value_or(settings.perFlow);
    settings.required = table->boolean("required").value_or(settings.required);
    table->refuseUnknown();
    return settings;
}

}  // namespace vesk::controller
