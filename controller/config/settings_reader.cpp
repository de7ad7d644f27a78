#include "config/settings_reader.h"

#include <array>
#include <bit>

#include "config/address_reader.h"
#include "config/instance_ports_reader.h"
#include "config/next_reader.h"

namespace vesk::controller {

namespace {

constexpr std::array<std::string_view, 2> framings{"udpv1", "udpv2"};
constexpr std::array<std::string_view, 2> ipv4Sources{"arrival", "kernel"};
constexpr std::array<std::string_view, 5> logLevels{"error", "warn", "info", "debug", "trace"};

/// The greatest number of seconds that fits 64 bits in nanoseconds.
constexpr std::int64_t greatestInterval = 9223372036;
constexpr std::int64_t mostInstances = 64;
constexpr std::int64_t dayInSeconds = 86400;
constexpr std::int64_t dayInMilliseconds = dayInSeconds * 1000;

template <typename Duration>
void readDuration(TableReader& table, std::string_view key, std::int64_t least,
                  std::int64_t greatest, Duration& target) {
    if (const std::optional<std::int64_t> count = table.integer(key, least, greatest)) {
        target = Duration(*count);
    }
}

void readInstances(TableReader& table, ForwarderSettings& settings) {
    const auto instances = static_cast<std::uint32_t>(
        table.integer("instances", 1, mostInstances).value_or(settings.instances));
    if (!std::has_single_bit(instances)) {
        table.complain("instances", "must be 1, 2, 4, 8, 16, 32 or 64");
        return;
    }
    settings.instances = instances;
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
    readInstances(*table, settings);
    settings.logLevel = table->choice("log_level", logLevels).value_or(settings.logLevel);
    table->refuseUnknown();
    return settings;
}

void readDownstream(TableReader& root, Configuration& configuration) {
    root.require("downstream");
    std::optional<TableReader> table = root.table("downstream");
    if (!table) {
        return;
    }
    configuration.downstream = readListen(*table);
    configuration.downstreamLines = {"", table->lineOf("address"), table->lineOf("port")};
    configuration.instancePorts = readInstancePorts(*table, configuration);
    table->refuseUnknown();
}

SupervisionSettings readSupervision(TableReader& root) {
    SupervisionSettings settings;
    std::optional<TableReader> table = root.table("controller");
    if (!table) {
        return settings;
    }
    readDuration(*table, "restart_pause_ms", 1, dayInMilliseconds, settings.restartPause);
    readDuration(*table, "restart_pause_max_ms", 1, dayInMilliseconds, settings.restartPauseMax);
    readDuration(*table, "leave_seconds", 0, dayInSeconds, settings.leave);
    readDuration(*table, "drain_seconds", 0, dayInSeconds, settings.drain);
    readDuration(*table, "stats_seconds", 1, dayInSeconds, settings.stats);
    settings.logLimit = table->boolean("log_limit").value_or(settings.logLimit);
    readDuration(*table, "answer_seconds", 1, dayInSeconds, settings.answer);
    readDuration(*table, "rotate_seconds", 0, longestRotation, settings.rotate);
    settings.strict = table->boolean("strict").value_or(settings.strict);
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
