// Puts fragments together: the settings of one of them and the flows of all, each label, prefix and
// name once. Called by fragment_folder, in the order of the files' names.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>

#include "config/configuration.h"
#include "config/fragments/fragment.h"
#include "config/instance_ports_reader.h"
#include "config/problem.h"

namespace vesk::controller {

class FragmentMerge {
 public:
    /// The settings of the fragment apply, which is in this file. Both must outlive the merge, as
    /// all other fragments and file names that are passed to it. Null: there are none.
    FragmentMerge(const Fragment* settings, const std::string& settingsFile);

    /// What contradicts the fragments that were added before.
    Problems problemsWith(const Fragment& fragment, const std::string& file);

    /// Whether add() would add all flows.
    bool areFree(const Fragment& fragment) const;

    /// Adds the flows, except for those that contradict the ones before.
    void add(const Fragment& fragment, const std::string& file);

    /// All flows by label.
    std::map<std::uint32_t, Flow> flows() const;

 private:
    struct Claim {
        const FragmentFlow* flow = nullptr;
        const std::string* file = nullptr;
    };

    void checkTables(const Fragment& fragment, const std::string& file, Problems& problems) const;
    void checkFlow(const FragmentFlow& flow, Problems& problems) const;
    void checkSources(const Fragment& fragment, Problems& problems);
    void collectSources();
    bool isFree(const FragmentFlow& flow) const;

    const Fragment* settings_;
    const std::string& settingsFile_;
    std::unordered_map<std::uint32_t, Claim> labels_;
    std::unordered_map<std::uint32_t, Claim> prefixes_;
    std::unordered_map<std::string_view, Claim> names_;
    SourceUsers sources_;
};

}  // namespace vesk::controller
