#include "config/fragments/fragment_merge.h"

#include <algorithm>
#include <vector>

#include "config/instance_configurations.h"
#include "config/key_mask.h"

namespace vesk::controller {

namespace {

std::string placeIn(const std::string& file, std::uint32_t line) {
    return maskKeyDigits(file) + ":" + std::to_string(line);
}

std::uint32_t prefixOf(const FragmentFlow& flow) {
    return flow.flow.auxiliary ? flow.flow.auxiliary->prefix : 0;
}

}  // namespace

FragmentMerge::FragmentMerge(const Fragment* settings, const std::string& settingsFile)
    : settings_(settings), settingsFile_(settingsFile) {}

Problems FragmentMerge::problemsWith(const Fragment& fragment, const std::string& file) {
    Problems problems;
    checkTables(fragment, file, problems);
    for (const FragmentFlow& flow : fragment.flows) {
        checkFlow(flow, problems);
    }
    if (problems.empty() && settings_ != nullptr && isSteered(*settings_->settings)) {
        checkSources(fragment, problems);
    }
    return problems;
}

void FragmentMerge::checkTables(const Fragment& fragment, const std::string& file,
                                Problems& problems) const {
    if (settings_ == nullptr || settingsFile_ == file) {
        return;
    }
    for (const SettingsTable& table : fragment.tables) {
        const auto same = std::ranges::find(settings_->tables, table.place, &SettingsTable::place);
        problems.push_back(
            {table.line, table.place + (same != settings_->tables.end()
                                            ? " is also in " + placeIn(settingsFile_, same->line)
                                            : " must be in the fragment that has downstream, " +
                                                  maskKeyDigits(settingsFile_))});
    }
}

void FragmentMerge::checkFlow(const FragmentFlow& flow, Problems& problems) const {
    if (const auto name = names_.find(flow.key); name != names_.end()) {
        problems.push_back({flow.line, flow.place + " is also in " +
                                           placeIn(*name->second.file, name->second.flow->line)});
    }
    if (const auto label = labels_.find(flow.flow.label); label != labels_.end()) {
        const Claim& first = label->second;
        problems.push_back({flow.labelLine, flow.place + ".label is already used by " +
                                                first.flow->place + " in " +
                                                placeIn(*first.file, first.flow->labelLine)});
    }
    if (const auto prefix = prefixes_.find(prefixOf(flow)); prefix != prefixes_.end()) {
        const Claim& first = prefix->second;
        problems.push_back({flow.auxiliaryLine,
                            flow.place + ".auxiliary has the same prefix as " + first.flow->place +
                                " in " + placeIn(*first.file, first.flow->auxiliaryLine)});
    }
}

void FragmentMerge::checkSources(const Fragment& fragment, Problems& problems) {
    for (const FragmentFlow& flow : fragment.flows) {
        const std::string problem = sources_.add(flow.flow, flow.place, *settings_->settings);
        if (!problem.empty()) {
            problems.push_back({flow.sourceLine, flow.place + ".source " + problem});
        }
    }
    if (!problems.empty()) {
        collectSources();
    }
}

/// Forgets those of a fragment that is not added.
void FragmentMerge::collectSources() {
    sources_ = {};
    for (const auto& [label, claim] : labels_) {
        sources_.add(claim.flow->flow, claim.flow->place, *settings_->settings);
    }
}

bool FragmentMerge::isFree(const FragmentFlow& flow) const {
    return !names_.contains(flow.key) && !labels_.contains(flow.flow.label) &&
           !prefixes_.contains(prefixOf(flow));
}

bool FragmentMerge::areFree(const Fragment& fragment) const {
    return std::ranges::all_of(fragment.flows,
                               [this](const FragmentFlow& flow) { return isFree(flow); });
}

void FragmentMerge::add(const Fragment& fragment, const std::string& file) {
    bool hasFlow = false;  // to which a `next` belongs
    for (const FragmentFlow& flow : fragment.flows) {
        if (!isFree(flow) || (flow.flow.isNext && !hasFlow)) {
            hasFlow = false;
            continue;
        }
        hasFlow = true;
        const Claim claim{&flow, &file};
        if (!flow.flow.isNext) {
            names_.emplace(flow.key, claim);
        }
        labels_.emplace(flow.flow.label, claim);
        if (prefixOf(flow) != 0) {
            prefixes_.emplace(prefixOf(flow), claim);
        }
    }
}

std::map<std::uint32_t, Flow> FragmentMerge::flows() const {
    std::vector<const Flow*> ordered;
    ordered.reserve(labels_.size());
    for (const auto& [label, claim] : labels_) {
        ordered.push_back(&claim.flow->flow);
    }
    std::ranges::sort(ordered, {}, &Flow::label);
    std::map<std::uint32_t, Flow> result;
    for (const Flow* const flow : ordered) {
        result.emplace_hint(result.end(), flow->label, *flow);
    }
    return result;
}

}  // namespace vesk::controller
