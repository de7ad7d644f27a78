#include "config/fragments/fragment_reader.h"

#include <map>
#include <string_view>
#include <utility>

#include "config/document.h"
#include "config/flow_reader.h"
#include "config/protected_file.h"
#include "config/root_reader.h"
#include "config/table_reader.h"

namespace vesk::controller {

namespace {

constexpr std::string_view flowsKey = "flows";

void listTables(const toml::table& root, Fragment& fragment) {
    for (const auto& [key, node] : root) {
        if (key.str() != flowsKey) {
            fragment.tables.push_back({printableName(key.str()), node.source().begin.line});
        }
    }
}

/// The tables of a fragment without [downstream] are an error, whatever is in them.
void readTables(TableReader& root, const std::filesystem::path& file, Fragment& fragment) {
    fragment.hasDownstream = root.has("downstream");
    if (!fragment.hasDownstream) {
        return;
    }
    const std::size_t before = fragment.problems.size();
    Configuration settings;
    readSettings(root, file.parent_path(), settings);
    settings.downstreamLines.file = file.string();
    root.refuseUnknown();
    if (fragment.problems.size() == before) {
        fragment.settings = std::move(settings);
    }
}

/// Moves the flow that was read from the table to the fragment. None of this label, if the flow has
/// a problem.
void moveFlow(const TableReader& table, std::string_view name, std::uint32_t line,
              std::map<std::uint32_t, Flow>& read, Fragment& fragment) {
    const auto label = table.raw()["label"].value_exact<std::int64_t>().value_or(0);
    const auto flow = read.find(static_cast<std::uint32_t>(label));
    if (flow != read.end()) {
        fragment.flows.push_back({std::string(name), table.place(), line, table.lineOf("label"),
                                  table.lineOf("auxiliary"), table.lineOf("source"),
                                  std::move(flow->second)});
        read.erase(flow);
    }
}

void addFlow(TableReader& flows, std::string_view key, std::map<std::uint32_t, Flow>& read,
             Fragment& fragment) {
    std::optional<TableReader> table = flows.table(key);
    if (!table) {
        return;
    }
    moveFlow(*table, key, flows.lineOf(key), read, fragment);
    if (table->raw()["next"].is_table()) {
        moveFlow(*table->table("next"), "", table->lineOf("next"), read, fragment);
    }
}

void readFlowTables(TableReader& root, KeySources& keys, Fragment& fragment) {
    std::optional<TableReader> flows = root.table(flowsKey);
    if (!flows) {
        return;
    }
    std::map<std::uint32_t, Flow> read = readFlows(*flows, keys);
    for (const auto& [key, node] : flows->raw()) {
        if (node.is_table()) {
            addFlow(*flows, key.str(), read, fragment);
        }
    }
}

/// A string in which a variable is missing is not usable, even if any text would be allowed there.
void judgeSettings(const Document& document, Fragment& fragment) {
    for (const StringProblem& cause : document.variables.problems) {
        if (!cause.place.starts_with(std::string(flowsKey) + ".")) {
            fragment.settings.reset();
        }
    }
}

}  // namespace

Fragment readFragment(const std::filesystem::path& file, ReadingRules rules) {
    Fragment fragment;
    const FileText read = readProtectedFile(file, maxConfigurationFile);
    if (!read.problem.empty()) {
        fragment.problems.push_back({0, read.problem});
        return fragment;
    }
    const std::optional<Document> document = parseDocument(read.text, file, fragment.problems);
    if (!document) {
        return fragment;
    }
    KeySources keys = keySourcesOf(*document, file, rules.allowReadableKeys);
    TableReader root(document->table, "", fragment.problems);
    listTables(document->table, fragment);
    readFlowTables(root, keys, fragment);
    readTables(root, file, fragment);
    refuseReadableKey(keys, read.readableByOthers, fragment.problems);
    judgeSettings(*document, fragment);
    completeProblems(*document, fragment.problems);
    fragment.keyFiles = std::move(keys.files);
    fragment.keyFolders = std::move(keys.folders);
    return fragment;
}

}  // namespace vesk::controller
