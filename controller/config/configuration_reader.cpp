#include "config/configuration_reader.h"

#include <algorithm>
#include <string>
#include <utility>

#include "config/flow_reader.h"
#include "config/instance_configurations.h"
#include "config/instance_ports_reader.h"
#include "config/lateral_reader.h"
#include "config/protected_file.h"
#include "config/settings_reader.h"
#include "config/syntax_error.h"
#include "config/table_reader.h"

namespace vesk::controller {

namespace {

constexpr std::size_t maxFile = std::size_t{256} << 20U;

Configuration readRoot(TableReader& root, KeySources& keys) {
    Configuration configuration;
    configuration.forwarder = readForwarder(root, keys.folder);
    readDownstream(root, configuration);
    configuration.lateral = readLateral(root, configuration);
    configuration.supervision = readSupervision(root);
    configuration.metrics = readMetrics(root);
    if (std::optional<TableReader> flows = root.table("flows")) {
        configuration.flows = readFlows(*flows, keys);
        if (isSteered(configuration)) {
            checkSources(*flows, configuration);
        }
    }
    root.refuseUnknown();
    return configuration;
}

void sortByLine(Problems& problems) {
    std::ranges::stable_sort(problems, {}, &Problem::line);
}

}  // namespace

ConfigurationReading parseConfiguration(std::string_view text, const std::filesystem::path& file,
                                        bool readableByOthers, ReadingRules rules) {
    ConfigurationReading result;
    try {
        const toml::table table = toml::parse(text, file.string());
        KeySources keys{file.parent_path(), rules.allowReadableKeys, std::nullopt};
        TableReader root(table, "", result.problems);
        Configuration configuration = readRoot(root, keys);
        if (keys.firstInlineKey && readableByOthers && !rules.allowReadableKeys) {
            result.problems.push_back({*keys.firstInlineKey,
                                       "the file contains a key and is readable by others: run "
                                       "chmod go-r on it, or use --allow-readable-keys"});
        }
        sortByLine(result.problems);
        if (result.problems.empty()) {
            result.configuration = std::move(configuration);
        }
    } catch (const toml::parse_error& error) {
        result.problems.push_back(describeSyntaxError(text, error));
    }
    return result;
}

ConfigurationReading readConfiguration(const std::filesystem::path& file, ReadingRules rules) {
    const FileText read = readProtectedFile(file, maxFile);
    if (!read.problem.empty()) {
        return {std::nullopt, {{0, read.problem}}};
    }
    return parseConfiguration(read.text, file, read.readableByOthers, rules);
}

}  // namespace vesk::controller
