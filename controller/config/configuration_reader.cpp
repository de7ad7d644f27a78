#include "config/configuration_reader.h"

#include <utility>

#include "config/document.h"
#include "config/flow_reader.h"
#include "config/instance_configurations.h"
#include "config/instance_ports_reader.h"
#include "config/protected_file.h"
#include "config/root_reader.h"

namespace vesk::controller {

namespace {

void readRoot(TableReader& root, KeySources& keys, Configuration& configuration) {
    readSettings(root, keys.folder, configuration);
    if (std::optional<TableReader> flows = root.table("flows")) {
        configuration.flows = readFlows(*flows, keys);
        if (isSteered(configuration)) {
            checkSources(*flows, configuration);
        }
    }
    root.refuseUnknown();
}

}  // namespace

ConfigurationReading parseConfiguration(std::string_view text, const std::filesystem::path& file,
                                        bool readableByOthers, ReadingRules rules) {
    ConfigurationReading result;
    std::optional<Document> document = parseDocument(text, file, result.problems);
    if (!document) {
        return result;
    }
    KeySources keys = keySourcesOf(*document, file, rules.allowReadableKeys);
    TableReader root(document->table, "", result.problems);
    Configuration configuration;
    readRoot(root, keys, configuration);
    configuration.downstreamLines.file = file.string();
    refuseReadableKey(keys, readableByOthers, result.problems);
    completeProblems(*document, result.problems);
    if (result.problems.empty()) {
        result.configuration = std::move(configuration);
    }
    return result;
}

ConfigurationReading readConfiguration(const std::filesystem::path& file, ReadingRules rules) {
    const FileText read = readProtectedFile(file, maxConfigurationFile);
    if (!read.problem.empty()) {
        return {std::nullopt, {{0, read.problem}}};
    }
    return parseConfiguration(read.text, file, read.readableByOthers, rules);
}

}  // namespace vesk::controller
